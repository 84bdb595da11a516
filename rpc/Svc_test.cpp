#include "rpc/Svc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <thread>

#include "rpc/Clnt.h"
#include "rpc/SvcUdp.h"
#include "testing/LogCapture.h"
#include "testing/rpcpeer/ServiceLoop.h"
#include "testing/rpcpeer/TestProg.h"

using rpc_test::callAdd;
using rpc_test::ServiceLoop;
using rpc_test::UdpSocket;
using rpc_test::words;

namespace {

using Bytes = std::vector<uint8_t>;

// Sends one datagram from a plain socket and returns the reply (empty when
// none came within timeoutMs).
Bytes exchange(int port, const Bytes& request, int timeoutMs = 1000) {
  UdpSocket s;
  s.sendTo(request, UdpSocket::loopback(port));
  Bytes reply;
  if (!s.receive(&reply, timeoutMs)) reply.clear();
  return reply;
}

TEST(Svc, RepliesOnTheWireAsTheCallerExpects) {
  ServiceLoop svc;
  svc.start();
  // xid, CALL, RPC version, program, version, procedure, credential, verifier, args.
  const Bytes call = words({77, 0, 2, TESTPROG, TESTVERS, TESTPROC_ADD, 0, 0, 0, 0, 20, 22});
  EXPECT_EQ(words({77, 1, 0, 0, 0, 0, 42}), exchange(svc.port(), call));
  // AUTH_SYS credentials are accepted unchecked.
  const Bytes sys = words({78, 0, 2, TESTPROG, TESTVERS, TESTPROC_ADD, 1, 8, 5, 0, 0, 0, 1, 2});
  EXPECT_EQ(words({78, 1, 0, 0, 0, 0, 3}), exchange(svc.port(), sys));
  // Another RPC version is denied with the supported range, an unknown
  // credential flavour as rejected.
  const Bytes v3 = words({79, 0, 3, TESTPROG, TESTVERS, 0, 0, 0, 0, 0});
  EXPECT_EQ(words({79, 1, 1, 0, 2, 2}), exchange(svc.port(), v3));
  const Bytes flavour = words({80, 0, 2, TESTPROG, TESTVERS, 0, 9, 0, 0, 0});
  EXPECT_EQ(words({80, 1, 1, 1, 2}), exchange(svc.port(), flavour));
}

TEST(Svc, KeepsServingAfterGarbageDatagrams) {
  ServiceLoop svc;
  svc.start();
  UdpSocket noise;
  std::mt19937 rng(12345);
  const Bytes header = words({1, 0, 2, TESTPROG, TESTVERS, TESTPROC_ECHO, 0, 0, 0, 0});
  for (int i = 0; i < 500; ++i) {
    Bytes d(rng() % 120);
    for (auto& b : d) b = static_cast<uint8_t>(rng());
    if (i % 2) {  // a valid header followed by random bytes reaches the argument decoder
      d.insert(d.begin(), header.begin(), header.end());
    }
    noise.sendTo(d, UdpSocket::loopback(svc.port()));
  }
  // A datagram longer than the receive buffer is dropped, not decoded in part.
  Bytes big = words({2, 0, 2, TESTPROG, TESTVERS, TESTPROC_NULL, 0, 0, 0, 0});
  big.resize(SVCUDP_BUFSIZE + 100);
  EXPECT_TRUE(exchange(svc.port(), big, 300).empty());
  ClientPtr cl(svc.client());
  int sum = 0;
  EXPECT_EQ(RPC_SUCCESS, callAdd(cl.get(), 40, 2, &sum));
  EXPECT_EQ(42, sum);
}

TEST(Svc, NeitherASignalNorTerminateCutsTheWaitShort) {
  struct sigaction sa {};
  sa.sa_handler = [](int) {};
  struct sigaction old {};
  sigaction(SIGUSR1, &sa, &old);  // no SA_RESTART: select returns EINTR
  ServiceLoop svc;
  svc.start();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  pthread_kill(svc.thread(), SIGUSR1);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_FALSE(svc.done()) << "an interrupted wait is resumed";
  terminateSvcrun(svc.service());
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(svc.done()) << "the loop sits in its wait until something arrives";
  // The request that wakes it is still served, and then the loop ends.
  ClientPtr cl(svc.client());
  int sum = 0;
  EXPECT_EQ(RPC_SUCCESS, callAdd(cl.get(), 1, 1, &sum));
  for (int i = 0; i < 100 && !svc.done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(svc.done());
}

TEST(Svc, RefusesDescriptorsFromNofileOn) {
  rlimit lim;
  getrlimit(RLIMIT_NOFILE, &lim);
  if (lim.rlim_cur <= NOFILE) {
    lim.rlim_cur = lim.rlim_max;
    setrlimit(RLIMIT_NOFILE, &lim);
  }
  if (lim.rlim_cur <= NOFILE) GTEST_SKIP() << "descriptor limit too low";
  testing_support::LogCapture log(testing_support::LogCapture::kAllLevels);
  const int s = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_EQ(NOFILE - 1, dup2(s, NOFILE - 1));
  ASSERT_EQ(NOFILE, dup2(s, NOFILE));
  close(s);

  RpcService svc;
  EXPECT_EQ(nullptr, svcudp_bufcreate(svc, NOFILE, 0, 0));
  EXPECT_EQ(-1, fcntl(NOFILE, F_GETFD)) << "the refused socket is closed";
  EXPECT_TRUE(log.contains("exceeded NOFILE=512!!"));
  EXPECT_TRUE(log.contains("close FD512"));

  SVCXPRT* last = svcudp_bufcreate(svc, NOFILE - 1, 0, 0);
  ASSERT_NE(nullptr, last);
  EXPECT_EQ(last, svc_xprt_of(svc, NOFILE - 1));
  EXPECT_EQ(NOFILE, svc.maxsock);
  svc_destroy(last);
  EXPECT_LT(svc.maxsock, NOFILE);
}

TEST(Svc, SelectFailureEndsTheLoop) {
  ServiceLoop svc;
  // Both open files: they must do so before the victim's number becomes free.
  testing_support::LogCapture log;
  testing::internal::CaptureStderr();
  SVCXPRT* victim = svcudp_bufcreate(svc.service(), RPC_ANYSOCK, 0, 0);
  ASSERT_NE(nullptr, victim);
  EXPECT_NE(0, victim->xp_port) << "a socket of its own is bound to an ephemeral port";
  close(victim->xp_sock);  // closed behind the runtime's back
  svc_run(svc.service());  // returns at once: select reports the bad descriptor
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("svc: - Select failed")) << err;
  EXPECT_TRUE(
      log.contains("FD" + std::to_string(victim->xp_sock) + " closed meanwhile in readfds"));
  victim->xp_sock = -1;  // its number may be someone else's by now
}

TEST(Svc, IPv4AndIPv6ServicesShareAPort) {
  ServiceLoop svc;
  sockaddr_in6 any6{};
  any6.sin6_family = AF_INET6;
  any6.sin6_addr = in6addr_any;
  any6.sin6_port = htons(static_cast<uint16_t>(svc.port()));
  SVCXPRT* v6 = svcudp_create(svc.service(), &any6);
  if (v6 == nullptr && errno == EAFNOSUPPORT) GTEST_SKIP() << "no IPv6";
  ASSERT_NE(nullptr, v6);
  EXPECT_EQ(svc.port(), v6->xp_port);
  EXPECT_TRUE(svc_register(v6, TESTPROG, TESTVERS, rpc_test::testDispatch, 0));
  EXPECT_FALSE(svc_register(
      v6, TESTPROG, TESTVERS, [](svc_req*, SVCXPRT*) {}, 0))
      << "one routine per program and version";
  svc.start();
  sockaddr_in6 loop6 = any6;
  loop6.sin6_addr = in6addr_loopback;
  int sock = RPC_ANYSOCK;
  ClientPtr cl(clntudp_create(&loop6, TESTPROG, TESTVERS, {1, 0}, &sock));
  ASSERT_TRUE(cl);
  int sum = 0;
  EXPECT_EQ(RPC_SUCCESS, callAdd(cl.get(), 6, 7, &sum));
  EXPECT_EQ(13, sum);
}

TEST(Svc, DispatchesADatagramHandedInWithoutTheLoop) {
  ServiceLoop svc;  // registered, but its loop is not running
  UdpSocket caller;
  const sockaddr_in from = caller.address();
  const Bytes call = words({5, 0, 2, TESTPROG, TESTVERS, TESTPROC_ADD, 0, 0, 0, 0, 1, 2});
  svcudp_dispatch(svc.xprt(), call.data(), call.size(), reinterpret_cast<const sockaddr*>(&from),
                  sizeof from);
  Bytes reply;
  sockaddr_in replyFrom;
  ASSERT_TRUE(caller.receive(&reply, 1000, &replyFrom));
  EXPECT_EQ(words({5, 1, 0, 0, 0, 0, 3}), reply);
  EXPECT_EQ(svc.port(), ntohs(replyFrom.sin_port)) << "answered from the service's socket";
  // Too short to be a call: nothing is answered.
  svcudp_dispatch(svc.xprt(), call.data(), 12, reinterpret_cast<const sockaddr*>(&from),
                  sizeof from);
  EXPECT_FALSE(caller.receive(&reply, 200));
}

// Anyone can send a length too large to allocate: each service logs at most
// 20 such refusals a minute, whatever another service logged.
TEST(Svc, RefusedLengthsAreLoggedWithinTheLimitOfEachService) {
  testing_support::LogCapture log;
  UdpSocket caller;
  const sockaddr_in from = caller.address();
  const Bytes huge = words({6, 0, 2, TESTPROG, TESTVERS, TESTPROC_ECHO, 0, 0, 0, 0, 0x08000000});
  ServiceLoop first, second;
  for (ServiceLoop* svc : {&first, &first, &second}) {
    for (int i = 0; i < 15; ++i) {
      svcudp_dispatch(svc->xprt(), huge.data(), huge.size(),
                      reinterpret_cast<const sockaddr*>(&from), sizeof from);
    }
  }
  EXPECT_EQ(log.count("cannot allocate 134217729 bytes"), 35u);
}

}  // namespace
