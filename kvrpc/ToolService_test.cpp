// The tool's callback service in a real process (kvprobe), called over UDP by
// an independent ONC RPC implementation (kvmini, on libtirpc).
#include "kvrpc/ToolService.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/KvPeers.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

// kvprobe serving the callback program in simulation mode (no KV needed).
class ServedProbe : public LinePeer {
 public:
  explicit ServedProbe(const std::string& registration = "hi", const ChildOptions& options = {})
      : LinePeer({kvprobePath(), "-l", "9", registration, "DEBUG", "tool", "port", "serve"},
                 options) {
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
      {{"call", "1", "--noargs"}, "error RPC: Server can't decode arguments", ""},
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

TEST(ToolServiceTest, KvOrderPortFixesThePortAndAnythingButAPortIsRefused) {
  int fixed = 0;
  {  // a port that is free now
    ServedProbe any;
    fixed = any.port();
  }
  ASSERT_GT(fixed, 0);
  ChildOptions options;
  options.env["KV_ORDER_PORT"] = std::to_string(fixed);
  ServedProbe probe("hi", options);
  EXPECT_EQ(probe.port(), fixed);
  EXPECT_EQ(kvminiCall("127.0.0.1:" + std::to_string(fixed), {"call", "0"}), "reply void");
  for (const char* bad : {"-1", "65536", "80x", " 1"}) EXPECT_EQ(ToolOrderPort(bad), -1) << bad;
  EXPECT_EQ(ToolOrderPort(""), 0);
  EXPECT_EQ(ToolOrderPort("65535"), 65535);
}

TEST(ToolServiceTest, WorkOrderOfMode2IsAcknowledgedWorkedAndEndsTheProcess) {
  ServedProbe probe;
  EXPECT_EQ(kvminiCall(probe.v4(), {"work", "--mode", "2", "/docs/last"}), "reply 1");
  EXPECT_TRUE(probe.waitFor("WORK 2 /docs/last"));
  EXPECT_EQ(probe.child().wait(10), 0);
  EXPECT_TRUE(contains(probe.child().stderrText(), "worker returns"));
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
  EXPECT_TRUE(contains(log, "DefaultWorker(1, '/docs/late')")) << log;
  EXPECT_TRUE(contains(log, "DefaultCtrl(5,'bye now')")) << log;
  EXPECT_EQ(probe.countLines("WORK"), 0);
}

}  // namespace
