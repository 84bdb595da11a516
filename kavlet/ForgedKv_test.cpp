// A worker whose KV is played by the test, while 127.0.0.2 answers each of its
// calls first, with the right xid: forged answers neither register nor end it.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/KvPeers.h"
#include "testing/TempDir.h"
#include "testing/rpcpeer/TestProg.h"

namespace {

using namespace testing_support;
using rpc_test::UdpSocket;
using rpc_test::wordAt;
using rpc_test::words;
using Bytes = std::vector<uint8_t>;

// An accepted reply with an int result: xid, REPLY, MSG_ACCEPTED, null verifier, SUCCESS.
Bytes answer(uint32_t xid, uint32_t result) { return words({xid, 1, 0, 0, 0, 0, result}); }

TEST(ForgedKvTest, AnswersFromAnotherAddressNeitherRegisterNorEndTheWorker) {
  TempDir dir;  // the document, and the worker's log
  writeFile(dir.file("COMMANDS"), "TESTWORKER ok\n");
  const std::string log = dir.file("worker.log");
  UdpSocket kv;
  UdpSocket forger(INADDR_LOOPBACK + 1);
  ChildOptions o;
  o.clearEnv = true;
  o.env = {{"CONFIG", dir.path()},
           {"MY_HOST_NAME", "localhost"},
           {"KVHOST", "127.0.0.1"},
           {"KVPORT", std::to_string(kv.port())},
           {"KLCTO", "30/30"}};  // no retransmission: the KV sees each call once
  BackgroundChild worker({KAVLET_TESTWORKER, "-logfile", log, "-loglevel", "9"}, o);

  // The forger answers the worker's next call first; the KV's answer follows.
  auto forgeThenAnswer = [&](uint32_t forged, uint32_t genuine) {
    Bytes call;
    sockaddr_in from;
    ASSERT_TRUE(kv.receive(&call, 20000, &from));
    forger.sendTo(answer(wordAt(call, 0), forged), from);
    kv.sendTo(answer(wordAt(call, 0), genuine), from);
  };
  forgeThenAnswer(0, 1);  // a forged "not accepted" would end it at once
  ASSERT_TRUE(waitForText(log, "orders to port"));
  const std::string at =
      "127.0.0.1:" + std::to_string(numberAfter(readFile(log), "orders to port"));

  std::string orderReply;
  std::thread order([&] {
    orderReply = kvminiCall(at, {"work", "--timeout", "30", "--retry", "30", dir.path()});
  });
  forgeThenAnswer(99, 0);  // the report: a forged 99 would end the worker
  order.join();
  EXPECT_EQ(orderReply, "reply 1");
  EXPECT_EQ(worker.wait(1), -1) << readIfThere(log);
  EXPECT_EQ(count(readFile(log), "datagram from 127.0.0.2:"), 2) << "both seen and dropped";
  worker.stop(9);
}

}  // namespace
