// The KV client calls in a fresh process each (kvprobe), against a KV
// emulated by an independent ONC RPC implementation (kvmini, on libtirpc).
#include "kvrpc/KVclient.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/KvPeers.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

ChildOptions probeEnv(std::map<std::string, std::string> extra = {}) {
  ChildOptions o;
  o.env = {{"MY_HOST_NAME", "localhost"}, {"KLCTO", "3/1"},       {"KVPORT", kUnset},
           {"RPC_OFFSET", kUnset},        {"kavletHOST", kUnset}, {"kavletTYPE", kUnset}};
  for (auto& kv : extra) o.env[kv.first] = kv.second;
  return o;
}

ChildResult probe(const std::vector<std::string>& steps, const ChildOptions& options) {
  std::vector<std::string> argv = {kvprobePath(), "-l", "9"};
  argv.insert(argv.end(), steps.begin(), steps.end());
  return runChild(argv, options);
}

// The number after step (a pattern) at the start of a line of the probe's output.
long stepResult(const ChildResult& r, const std::string& step) {
  return numberAfter("\n" + r.out, "\n" + step);
}

// Whether the KV logged a line that starts with prefix and holds part.
bool kvLogged(KvMini& kv, const std::string& prefix, const std::string& part) {
  for (const auto& l : kv.drain(0))
    if (l.rfind(prefix, 0) == 0 && l.find(part) != std::string::npos) return true;
  return false;
}

TEST(KVclientTest, RegistersReportsCreatesDocumentsAndSaysGoodbye) {
  KvMini kv;
  ChildResult r = probe({"setport", kv.portText(), "hi",    "localhost", "clockette", "port",
                         "op",      "/docs/0001",  "ok",    "",          "crt2",      "/docs/new",
                         "split",   "from 0001",   "crt",   "localhost", "splitter",  "/docs/other",
                         "merge",   "x",           "alive", "bye"},
                        probeEnv());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  long sock = stepResult(r, "hi");
  EXPECT_GE(sock, 0) << r.out;
  EXPECT_EQ(stepResult(r, "port [0-9]+ socket"), sock);
  for (const char* step : {"op", "crt2", "crt"}) EXPECT_EQ(stepResult(r, step), 0) << step;
  // The alive message waits for no answer.
  EXPECT_LT(stepResult(r, "alive ms"), 500);

  kv.drain(1);
  std::string me = "family=2 address=127.0.0.1 port=" + std::to_string(stepResult(r, "port"));
  EXPECT_TRUE(kvLogged(kv, "HI ", me + " type=\"clockette\" -> 1"));
  EXPECT_TRUE(kvLogged(kv, "OP ", me + " document=\"/docs/0001\" text2=\"ok\" text3=\"\" -> 0"));
  // KVcrt2 goes with the registration; KVcrt with its own type and port 0.
  EXPECT_TRUE(kvLogged(kv, "CRT ",
                       "type=\"clockette\" " + me +
                           " path=\"/docs/new\" operation=\"split\" comment=\"from 0001\" -> 0"));
  EXPECT_TRUE(kvLogged(kv, "CRT ",
                       "type=\"splitter\" family=2 address=127.0.0.1 port=0 path=\"/docs/other\""));
  EXPECT_EQ(kv.countLines("CRT "), 2);
  EXPECT_EQ(kv.countLines("ALIVE "), 1);
  EXPECT_TRUE(kvLogged(kv, "BYE ", me + " type=\"clockette\""));
}

TEST(KVclientTest, RegistrationFailuresGiveTheirCodesAndLeaveNoRegistration) {
  const struct {
    const char* name;
    std::vector<std::string> kvArgs;
    std::string host;
    long hiCode;
    const char* stderrPart;
  } cases[] = {
      {"refused", {"--refuse"}, "localhost", -1, "answer 0"},
      {"unknown host", {}, "no.invalid", -2, "KVconnect: cannot get addess for 'no.invalid'"},
      {"silent", {"--silent"}, "localhost", -3, "rpc(hello): RPC: Timed out"},
      {"other program", {"--offset", "3"}, "localhost", -3, "rpc(hello): RPC: Program unavailable"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    KvMini kv(c.kvArgs);
    ChildResult r = probe(
        {"setport", kv.portText(), "hi", c.host, "tool", "op", "/d", "ok", "", "alive", "bye"},
        probeEnv({{"KLCTO", "1/1"}}));
    EXPECT_EQ(stepResult(r, "hi"), c.hiCode) << r.out;
    EXPECT_TRUE(contains(r.err, c.stderrPart)) << r.err;
    if (c.hiCode != -3) {
      // Without a registration nothing further reaches the KV.
      EXPECT_EQ(stepResult(r, "op"), 1);
      kv.drain(1);
      for (const char* call : {"OP ", "ALIVE ", "BYE "}) EXPECT_EQ(kv.countLines(call), 0) << call;
    }
  }
}

// The environment replaces host and type of the registration. The KV's
// answers are returned. A report is always sent: texts beyond their fields
// are shortened to fit.
TEST(KVclientTest, EnvironmentOverridesKvAnswersAndBoundsOfTheReport) {
  KvMini kv({"--op-answer", "4", "--crt-answer", "3"});
  std::string status61(61, 's');
  // 253 bytes: the last 125 would start in the middle of the "é".
  std::string path = "/" + std::string(126, 'p') + "\xC3\xA9" + std::string(124, 'n');
  ChildResult r =
      probe({"setport",   kv.portText(), "hi", "kv.invalid", "given", "op",
             path,        status61,      "",   "op",         "/d",    status61.substr(1),
             "",          "crt2",        "/n", "o",          "c",     "crt",
             "localhost", "t",           "/p", "o",          "c"},
            probeEnv({{"kavletHOST", "localhost"}, {"kavletTYPE", "forced"}}));
  EXPECT_TRUE(contains(r.err, "libkavlet: using hostname 'localhost' and not 'kv.invalid'"));
  EXPECT_TRUE(contains(r.err, "libkavlet: using type 'forced' and not 'given'"));
  EXPECT_FALSE(contains(r.out, "op 1 ")) << r.out;
  EXPECT_EQ(stepResult(r, "op"), 4) << r.out;
  EXPECT_EQ(stepResult(r, "crt2"), 3);
  EXPECT_EQ(stepResult(r, "crt"), 3);
  EXPECT_TRUE(contains(r.err, "KV refuses document"));
  EXPECT_TRUE(contains(r.err, "document path '" + path + "' is longer than the 128 bytes of a " +
                                  "report: reported as '..." + std::string(124, 'n') + "'"));
  std::string line;
  ASSERT_TRUE(kv.waitFor("OP ", &line));
  EXPECT_TRUE(contains(line, "document=\"..." + std::string(124, 'n') + "\" text2=\"" +
                                 std::string(57, 's') + "...\""))
      << line;
  ASSERT_TRUE(kv.waitFor("OP ", &line));
  EXPECT_TRUE(contains(line, "document=\"/d\" text2=\"" + status61.substr(1) + "\"")) << line;
  EXPECT_TRUE(kvLogged(kv, "HI ", "type=\"forced\""));
}

TEST(KVclientTest, SilentKvTimesOutAfterTheTotalAndIsAskedAgainEveryRetry) {
  const struct {
    const char* klcto;
    int minSends, maxSends;
  } cases[] = {
      {"3/1", 3, 4},  // sent at 0, 1, 2 (and perhaps 3) s
      {"3", 2, 2},    // the retry interval stays 2 s: sent at 0 and 2 s
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.klcto);
    KvMini kv({"--silent"});
    ChildResult r = probe({"setport", kv.portText(), "hi", "localhost", "tool"},
                          probeEnv({{"KLCTO", c.klcto}}));
    EXPECT_EQ(stepResult(r, "hi"), -3) << r.out;
    long ms = stepResult(r, "hi -?[0-9]+ ms");
    EXPECT_GE(ms, 2900);
    EXPECT_LE(ms, 4500);
    EXPECT_TRUE(contains(r.err, "clnt timeout on FD")) << r.err;
    kv.drain(1);
    EXPECT_GE(kv.countLines("HI "), c.minSends);
    EXPECT_LE(kv.countLines("HI "), c.maxSends);
  }
}

TEST(KVclientTest, DebugHostServesButSendsNothing) {
  ChildResult r = probe({"hi", "DEBUG", "tool", "port", "op", "/d", "ok", "fine", "crt", "kvhost",
                         "t", "/p", "o", "c", "alive", "bye"},
                        probeEnv());
  EXPECT_GE(stepResult(r, "hi"), 0) << r.out;
  EXPECT_GT(stepResult(r, "port"), 0);
  EXPECT_EQ(stepResult(r, "op"), 0);
  EXPECT_EQ(stepResult(r, "crt"), 0);
  EXPECT_TRUE(contains(r.err, "KVhi: simulation: no connection to KV"));
  EXPECT_TRUE(contains(r.err, "KVop('/d','ok','fine')"));
  EXPECT_TRUE(contains(r.err, "KVcrt('kvhost', 't', '/p', 'o', 'c')"));
  EXPECT_FALSE(contains(r.err, "clntudp_create"));
}

TEST(KVclientTest, KvPortComesFromKVPORTUnlessSetPortWasCalled) {
  KvMini kv;
  struct {
    const char* name;
    std::string kvport;
    std::vector<std::string> setport;
    bool reachesKv;
  } cases[] = {
      {"KVPORT", kv.portText(), {}, true},
      {"KVSetPort wins", kv.portText(), {"setport", "9"}, false},
      {"KVPORT not a number", "none", {"setport", kv.portText()}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> steps = c.setport;
    steps.insert(steps.end(), {"hi", "localhost", "tool", "bye"});
    ChildResult r = probe(steps, probeEnv({{"KVPORT", c.kvport}, {"KLCTO", "1/1"}}));
    EXPECT_EQ(stepResult(r, "hi") >= 0, c.reachesKv) << r.out;
  }
  kv.drain(1);
  EXPECT_EQ(kv.countLines("HI "), 2);
}

TEST(KVclientTest, ProgramOffsetShiftsTheKvProgramButNotTheToolProgram) {
  KvMini kv({"--offset", "3"});
  LinePeer p({kvprobePath(), "setport", kv.portText(), "hi", "localhost", "tool", "port", "serve"},
             probeEnv({{"RPC_OFFSET", "3"}}));
  std::string hi, port;
  ASSERT_TRUE(p.waitFor("hi ", &hi));
  EXPECT_GE(numberAfter(hi, "hi"), 0) << hi;
  ASSERT_TRUE(p.waitFor("port ", &port));
  // kvmini calls the callback program by its fixed number.
  EXPECT_EQ(
      kvminiCall("127.0.0.1:" + std::to_string(numberAfter(port, "port")), {"work", "/docs/x"}),
      "reply 1");
  EXPECT_TRUE(p.waitFor("WORK 1 /docs/x"));
}

TEST(KVclientTest, KVcrtShortensTheTimeOutOfEveryLaterCall) {
  auto kv = std::make_unique<KvMini>();
  // No KLCTO: the registration would wait 60 s, but KVcrt has set 15 s for all.
  LinePeer p({kvprobePath(), "setport", kv->portText(), "crt", "localhost", "t", "/p", "o", "c",
              "hi", "localhost", "tool", "sleep", "1000", "op", "/d", "ok", ""},
             probeEnv({{"KLCTO", kUnset}}));
  ASSERT_TRUE(p.waitFor("hi "));
  kv.reset();
  std::string line;
  ASSERT_TRUE(p.waitFor("op ", &line, 40));
  EXPECT_EQ(numberAfter(line, "op"), 1);  // the KV went away
  EXPECT_TRUE(contains(p.child().stderrText(), "KVop: RPC:"));
  long ms = numberAfter(line, "ms");
  EXPECT_GE(ms, 14500);
  EXPECT_LE(ms, 20000);
}

}  // namespace
