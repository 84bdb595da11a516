// The tool's callback service in a real process (kvprobe), called over UDP by
// an independent ONC RPC implementation (kvmini, on libtirpc).
#include "kvrpc/ToolService.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "testing/KvPeers.h"

namespace {

using testing_support::ChildOptions;
using testing_support::KvMini;
using testing_support::kvminiCall;
using testing_support::kvprobePath;
using testing_support::LinePeer;
using testing_support::numberAfter;

// kvprobe serving the callback program in simulation mode (no KV needed).
class ServedProbe : public LinePeer {
 public:
  // logFile: where the probe logs; a flooded service must not log into a pipe
  // nobody reads, or it blocks.
  explicit ServedProbe(const std::string& registration = "hi", const char* logFile = "stderr")
      : LinePeer({kvprobePath(), "-l", "9", "-log", logFile, registration, "DEBUG", "tool", "port",
                  "serve"}) {
    std::string line;
    if (waitFor("port ", &line)) port_ = static_cast<int>(numberAfter(line, "port"));
  }
  std::string v4() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string v6() const { return "[::1]:" + std::to_string(port_); }
  int port() const { return port_; }

 private:
  int port_ = -1;
};

struct ProcCase {
  std::vector<std::string> args;  // kvmini client command
  std::string reply;              // its first output line
  std::string worked;             // the line the probe's callback prints, or ""
};

TEST(ToolServiceTest, AnswersEveryProcedureOnIpv4AndIpv6OnTheSamePort) {
  ServedProbe probe;
  ASSERT_GT(probe.port(), 0);
  const ProcCase cases[] = {
      {{"call", "0"}, "reply void", ""},
      // The null procedure decodes an order like the others.
      {{"call", "0", "--noargs"}, "error RPC: Server can't decode arguments", ""},
      {{"work", "/docs/a"}, "reply 1", "WORK 1 /docs/a"},
      {{"work", "--mode", "3", "/docs/with blank"}, "reply 1", "WORK 3 /docs/with blank"},
      {{"ctrl", "13", "5"}, "reply 113", "CTRL 13 5"},
      {{"info", "7", "hello"}, "error RPC: Procedure unavailable", ""},
      {{"call", "4"}, "error RPC: Procedure unavailable", ""},
      {{"call", "99", "--noargs"}, "error RPC: Procedure unavailable", ""},
      {{"call", "1", "--noargs"}, "error RPC: Server can't decode arguments", ""},
      {{"call", "2", "--vers", "2"}, "error RPC: Program/version mismatch", ""},
  };
  for (const std::string& to : {probe.v4(), probe.v6()}) {
    for (const ProcCase& c : cases) {
      SCOPED_TRACE(to + " " + c.args[0] + " " + c.args.back());
      EXPECT_EQ(kvminiCall(to, c.args), c.reply);
      if (!c.worked.empty()) {
        std::string line;
        ASSERT_TRUE(probe.waitFor(c.worked.substr(0, 4), &line, 5));
        EXPECT_EQ(line, c.worked);
      }
    }
  }
  // Nothing but the expected callbacks ran: no work from undecodable orders.
  probe.drain(1);
  EXPECT_EQ(probe.countLines("WORK"), 4);
  EXPECT_EQ(probe.countLines("CTRL"), 2);
}

TEST(ToolServiceTest, WorkOrderOfMode2IsAcknowledgedWorkedAndEndsTheProcess) {
  ServedProbe probe;
  EXPECT_EQ(kvminiCall(probe.v4(), {"work", "--mode", "2", "/docs/last"}), "reply 1");
  EXPECT_TRUE(probe.waitFor("WORK 2 /docs/last"));
  EXPECT_EQ(probe.child().wait(10), 0);
  EXPECT_NE(probe.child().stderrText().find("worker returns"), std::string::npos);
}

TEST(ToolServiceTest, InfoMessageReachesItsCallbackAndIsNotAnswered) {
  ServedProbe probe("info");
  EXPECT_EQ(kvminiCall(probe.v4(), {"info", "7", "queue blocked"}), "error RPC: Timed out");
  std::string line;
  EXPECT_TRUE(probe.waitFor("INFO", &line));
  EXPECT_EQ(line, "INFO queue blocked 7");
}

TEST(ToolServiceTest, AfterGoodbyeWorkIsOnlyLoggedAndControlEndsTheProcess) {
  KvMini kv;
  ChildOptions env;
  env.env = {{"MY_HOST_NAME", "localhost"}, {"KLCTO", "5/1"}};
  LinePeer probe({kvprobePath(), "-l", "5", "setport", kv.portText(), "hi", "localhost", "tool",
                  "bye", "port", "serve"},
                 env);
  std::string line;
  ASSERT_TRUE(probe.waitFor("port ", &line));
  std::string to = "127.0.0.1:" + std::to_string(numberAfter(line, "port"));

  EXPECT_EQ(kvminiCall(to, {"work", "/docs/late"}), "reply 1");
  // The default control callback ends the process before it could answer.
  EXPECT_EQ(kvminiCall(to, {"ctrl", "5", "bye now"}).rfind("error RPC: ", 0), 0u);
  EXPECT_EQ(probe.child().wait(10), 0);
  std::string log = probe.child().stderrText();
  EXPECT_NE(log.find("DefaultWorker(1, '/docs/late')"), std::string::npos) << log;
  EXPECT_NE(log.find("DefaultCtrl(5,'bye now')"), std::string::npos) << log;
  EXPECT_EQ(probe.countLines("WORK"), 0);
}

// A call header of the tool's program with AUTH_NONE, followed by body.
std::vector<uint8_t> callDatagram(uint32_t xid, uint32_t proc, const std::vector<uint32_t>& body) {
  std::vector<uint32_t> words = {xid, 0, 2, TOOLPROG, TOOLVERS, proc, 0, 0, 0, 0};
  words.insert(words.end(), body.begin(), body.end());
  std::vector<uint8_t> bytes(words.size() * 4);
  for (size_t i = 0; i < words.size(); ++i) {
    uint32_t be = htonl(words[i]);
    memcpy(&bytes[i * 4], &be, 4);
  }
  return bytes;
}

TEST(ToolServiceTest, ServesAValidOrderAfterAThousandGarbageDatagrams) {
  ServedProbe probe("hi", "/dev/null");
  ASSERT_GT(probe.port(), 0);
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(probe.port()));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

  std::mt19937 rng(20231191);
  std::vector<std::vector<uint8_t>> garbage;
  // Plausible calls with hostile arguments: string lengths beyond the datagram
  // or beyond any allocation, truncated orders, unknown procedures.
  garbage.push_back(callDatagram(1, 1, {7, 0xFFFFFFFF}));
  garbage.push_back(callDatagram(2, 1, {7, 0x7FFFFFF0, 0x41414141}));
  garbage.push_back(callDatagram(3, 2, {7}));
  garbage.push_back(callDatagram(4, 3, {}));
  garbage.push_back(callDatagram(5, 0xFFFFFFFF, {1, 0}));
  garbage.push_back({});
  while (garbage.size() < 1000) {
    std::vector<uint8_t> d(rng() % 700);
    for (auto& b : d) b = static_cast<uint8_t>(rng());
    // Half of them start like a call of the tool's program, to get past the header.
    if (garbage.size() % 2 == 0 && d.size() >= 40) {
      auto head = callDatagram(rng(), rng() % 5, {});
      memcpy(d.data(), head.data(), 40);
    }
    garbage.push_back(d);
  }
  for (const auto& d : garbage) {
    sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    usleep(200);  // stay within the socket's receive queue
  }
  close(fd);

  EXPECT_EQ(kvminiCall(probe.v4(), {"work", "/docs/after-garbage"}), "reply 1");
  EXPECT_TRUE(probe.waitFor("WORK 1 /docs/after-garbage"));
  EXPECT_TRUE(probe.child().running());
}

}  // namespace
