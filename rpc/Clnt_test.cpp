#include "rpc/Clnt.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "testing/rpcpeer/ServiceLoop.h"

using rpc_test::callAdd;
using rpc_test::UdpSocket;
using rpc_test::wordAt;
using rpc_test::words;

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// An accepted reply: xid, REPLY, MSG_ACCEPTED, null verifier, status.
Bytes accepted(uint32_t xid, uint32_t status) { return words({xid, 1, 0, 0, 0, status}); }

struct ClientFixture : ::testing::Test {
  UdpSocket peer;
  CLIENT* cl = nullptr;
  std::thread thread;

  void create(timeval retry) {
    sockaddr_in a = peer.address();
    int sock = RPC_ANYSOCK;
    cl = clntudp_create(&a, TESTPROG, TESTVERS, retry, &sock);
    ASSERT_NE(nullptr, cl);
  }
  ~ClientFixture() override {
    if (thread.joinable()) thread.join();
    if (cl) clnt_destroy(cl);
  }
  // Answers the next call, on another thread, with the datagrams reply(call, xid) gives.
  void answer(std::function<std::vector<Bytes>(const Bytes&, uint32_t)> reply) {
    thread = std::thread([this, reply] {
      Bytes call;
      sockaddr_in from;
      if (!peer.receive(&call, 3000, &from)) return;
      for (const Bytes& d : reply(call, wordAt(call, 0))) peer.sendTo(d, from);
    });
  }
};

TEST_F(ClientFixture, SendsAnAuthNoneCallAndDecodesTheReplyWithItsXid) {
  create({1, 0});
  Bytes call;
  answer([&](const Bytes& c, uint32_t xid) {
    call = c;
    return std::vector<Bytes>{accepted(xid - 1, 0) + words({7}),  // late answer to an older call
                              Bytes{1, 2},                        // noise
                              accepted(xid, 0) + words({42})};
  });
  int sum = 0;
  ASSERT_EQ(RPC_SUCCESS, callAdd(cl, 40, 2, &sum));
  thread.join();
  EXPECT_EQ(42, sum);
  // xid, CALL, version 2, program, version, procedure, AUTH_NONE x2, arguments.
  EXPECT_EQ(words({wordAt(call, 0), 0, 2, TESTPROG, TESTVERS, TESTPROC_ADD, 0, 0, 0, 0, 40, 2}),
            call);
}

TEST_F(ClientFixture, RetransmitsEveryIntervalUntilTheTotalTimeOut) {
  create({0, 250000});
  std::vector<uint32_t> xids;
  thread = std::thread([&] {
    Bytes d;
    while (peer.receive(&d, 800)) xids.push_back(wordAt(d, 0));
  });
  int sum = 0;
  const auto start = Clock::now();
  EXPECT_EQ(RPC_TIMEDOUT, callAdd(cl, 1, 2, &sum, {0, 1000000}));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  thread.join();
  EXPECT_GE(seconds, 0.95);
  EXPECT_LT(seconds, 3.0);  // generous: CI runs tests in parallel under sanitizers
  ASSERT_GE(xids.size(), 2u);
  EXPECT_LE(xids.size(), 5u);
  for (uint32_t x : xids) EXPECT_EQ(xids[0], x) << "a retransmission keeps the xid";
  EXPECT_STREQ("KVop: RPC: Timed out", clnt_sperror(cl, "KVop"));
}

// A zero total given to the call, or set by control for every later call
// whatever they give.
TEST_F(ClientFixture, ZeroTotalTimeOutSendsOnceAndDoesNotWait) {
  create({2, 0});
  timeval zero = {0, 0};
  for (timeval given : {zero, timeval{25, 0}}) {
    if (given.tv_sec != 0) {
      ASSERT_TRUE(clnt_control(cl, CLSET_TIMEOUT, &zero));
    }
    int sum = 0;
    const auto start = Clock::now();
    EXPECT_EQ(RPC_TIMEDOUT, callAdd(cl, 1, 2, &sum, given));
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 0.5);
    Bytes d;
    EXPECT_TRUE(peer.receive(&d, 1000));
    EXPECT_FALSE(peer.receive(&d, 300));
  }
}

TEST_F(ClientFixture, ReplyStatusesBecomeErrorsWithTheirTexts) {
  struct Case {
    Bytes reply;  // after xid and REPLY
    clnt_stat stat;
    const char* text;
  } cases[] = {
      {words({0, 0, 0, 1}), RPC_PROGUNAVAIL, "p: RPC: Program unavailable"},
      {words({0, 0, 0, 2, 1, 3}), RPC_PROGVERSMISMATCH,
       "p: RPC: Program/version mismatch; low version = 1, high version = 3"},
      {words({0, 0, 0, 3}), RPC_PROCUNAVAIL, "p: RPC: Procedure unavailable"},
      {words({0, 0, 0, 4}), RPC_CANTDECODEARGS, "p: RPC: Server can't decode arguments"},
      {words({0, 0, 0, 5}), RPC_SYSTEMERROR, "p: RPC: Remote system error"},
      {words({1, 0, 2, 2}), RPC_VERSMISMATCH,
       "p: RPC: Incompatible versions of RPC; low version = 2, high version = 2"},
      {words({1, 1, 5}), RPC_AUTHERROR,
       "p: RPC: Authentication error; why = Client credential too weak"},
      {words({1, 1, 99}), RPC_AUTHERROR,
       "p: RPC: Authentication error; why = (unknown authentication error - 99)"},
      {words({0, 0, 0, 9}), RPC_FAILED, "p: RPC: Failed (unspecified error)"},
  };
  create({1, 0});
  for (const Case& c : cases) {
    answer([&](const Bytes&, uint32_t xid) {
      return std::vector<Bytes>{words({xid, 1}) + c.reply};
    });
    int sum = 0;
    EXPECT_EQ(c.stat, callAdd(cl, 1, 2, &sum)) << c.text;
    EXPECT_STREQ(c.text, clnt_sperror(cl, "p"));
    thread.join();
  }
}

// Another local sender that learnt the xid, and a reply whose body does not
// decode, neither end the call: it waits for the server's answer.
TEST_F(ClientFixture, OnlyADecodableReplyFromTheServerEndsTheCall) {
  create({1, 0});
  UdpSocket forger(INADDR_LOOPBACK + 1);  // 127.0.0.2
  std::vector<uint32_t> xids;
  thread = std::thread([&] {
    for (int i = 0; i < 2; ++i) {
      Bytes call;
      sockaddr_in from;
      if (!peer.receive(&call, 3000, &from)) return;
      const uint32_t xid = wordAt(call, 0);
      xids.push_back(xid);
      forger.sendTo(accepted(xid, 0) + words({666}), from);
      peer.sendTo(accepted(xid, 0) + Bytes{0, 0}, from);  // results cut short
      peer.sendTo(words({xid, 1, 0, 0, 500}), from);      // no such verifier flavour
      peer.sendTo(accepted(xid, 0) + words({42 + static_cast<uint32_t>(i)}), from);
    }
  });
  for (int expected : {42, 43}) {
    int sum = 0;
    EXPECT_EQ(RPC_SUCCESS, callAdd(cl, 1, 2, &sum));
    EXPECT_EQ(expected, sum);
  }
  thread.join();
  ASSERT_EQ(2u, xids.size());
  EXPECT_NE(xids[0] + 1, xids[1]) << "each call draws its xid afresh";
}

TEST_F(ClientFixture, ArgumentsThatDoNotFitAreNotSent) {
  create({1, 0});
  std::string big(9000, 'x');
  char* text = big.data();
  int res = 0;
  EXPECT_EQ(RPC_CANTENCODEARGS, clnt_call(cl, TESTPROC_ECHO, xdr_proc<xdr_wrapstring>, &text,
                                          xdr_proc<xdr_int>, &res, {1, 0}));
  EXPECT_STREQ("e: RPC: Can't encode arguments", clnt_sperror(cl, "e"));
  Bytes d;
  EXPECT_FALSE(peer.receive(&d, 200));
}

TEST(Clnt, SendFailureReportsTheSystemError) {
  sockaddr_in broadcast = UdpSocket::loopback(9);
  broadcast.sin_addr.s_addr = htonl(INADDR_BROADCAST);  // refused without SO_BROADCAST
  int sock = RPC_ANYSOCK;
  CLIENT* cl = clntudp_create(&broadcast, TESTPROG, TESTVERS, {1, 0}, &sock);
  ASSERT_NE(nullptr, cl);
  EXPECT_EQ(RPC_CANTSEND,
            clnt_call(cl, 0, xdr_proc<xdr_void>, nullptr, xdr_proc<xdr_void>, nullptr, {1, 0}));
  EXPECT_STREQ("s: RPC: Unable to send; errno = Permission denied", clnt_sperror(cl, "s"));
  clnt_destroy(cl);
}

TEST(Clnt, CreationWithoutPortFailsWithPrintableError) {
  sockaddr_in noPort = UdpSocket::loopback(0);
  int sock = RPC_ANYSOCK;
  EXPECT_EQ(nullptr, clntudp_create(&noPort, TESTPROG, TESTVERS, {1, 0}, &sock));
  testing::internal::CaptureStderr();
  clnt_pcreateerror("clntudp_create");
  EXPECT_EQ("clntudp_create: RPC: Program not registered\n",
            testing::internal::GetCapturedStderr());
}

}  // namespace
