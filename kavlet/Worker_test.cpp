// The whole worker as a process: kavlet_testworker in test mode over real
// directories, and in KV mode against the KV emulator kvmini (libtirpc) or a
// KV the test plays, driven with orders and control messages over UDP and
// with signals.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/KvPeers.h"
#include "testing/TempDir.h"
#include "testing/rpcpeer/TestProg.h"

namespace {

using namespace testing_support;

// Test-mode output with every leading "[YYYY/MM/DD hh:mm:ss] " stamp checked
// and replaced by "T ".
std::string withoutStamps(const std::string& out) {
  static const std::regex stamp(R"((^|\n)\[\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\] )");
  return std::regex_replace(out, stamp, "$1T ");
}

class WorkerProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"config", "config/setup", "logs", "docs"}) makeDir(dir_.file(d));
  }

  ChildOptions env(const std::map<std::string, std::string>& extra = {}) const {
    ChildOptions o;
    o.clearEnv = true;  // nothing of the calling shell's settings
    o.env = {{"CONFIG", dir_.file("config")},
             {"ZEPH_SRV_LOG", dir_.file("logs")},
             {"MY_HOST_NAME", "localhost"},
             // A long retry interval: the KV sees each call once.
             {"KLCTO", "10/5"}};
    for (const auto& kv : extra) o.env[kv.first] = kv.second;
    o.timeoutSeconds = 60;
    return o;
  }

  std::vector<std::string> argv(std::vector<std::string> options) const {
    std::vector<std::string> a = {KAVLET_TESTWORKER, "-logfile", logPath(), "-loglevel", "9"};
    a.insert(a.end(), options.begin(), options.end());
    return a;
  }

  // A document directory with the given COMMANDS text.
  std::string document(const std::string& name, const std::string& commands) const {
    std::string d = dir_.file(name);
    makeDir(d);
    writeFile(d + "/COMMANDS", commands);
    return d;
  }

  std::string logPath() const { return dir_.file("logs/worker.log"); }
  std::string logText() const { return readIfThere(logPath()); }
  bool waitForLog(const std::string& part) const { return waitForText(logPath(), part); }

  bool startRegistered(std::vector<std::string> kvArgs = {},
                       const std::map<std::string, std::string>& extraEnv = {}) {
    return served_.start(std::move(kvArgs), argv({}), env(extraEnv));
  }
  // Sends a work order once (no retransmission within the time-out: a slow
  // machine must not make the worker see it twice); kvmini's reply line.
  std::string order(const std::string& directory) const {
    return kvminiCall(served_.at, {"work", "--timeout", "20", "--retry", "20", directory});
  }
  std::string control(int code, const std::string& text) const {
    return kvminiCall(served_.at,
                      {"ctrl", "--timeout", "20", "--retry", "20", std::to_string(code), text});
  }
  // The next result report the KV received, as kvmini logs it.
  std::string nextReport() {
    std::string line;
    served_.kv->waitFor("OP ", &line);
    return line;
  }
  static std::string report(const std::string& doc, const std::string& status,
                            const std::string& comment, int answer = 0) {
    return "document=\"" + doc + "\" text2=\"" + status + "\" text3=\"" + comment + "\" -> " +
           std::to_string(answer);
  }

  TempDir dir_;
  ServedWorker served_;
};

// The sorted subdirectories are the documents, run as often as asked; a
// directory without subdirectories is itself the document; paths that cannot
// be used stop the run. The KV is never contacted.
TEST_F(WorkerProcessTest, TestModeRunsTheDocumentsOfItsPathAndNeverContactsTheKv) {
  KvMini kv;
  std::string docs = dir_.file("docs");
  document("docs/b", "TESTWORKER fail\n");
  std::string a = document("docs/a", "TESTWORKER append NEW line\n");
  writeFile(docs + "/plain-file", "not a document\n");
  std::string single = document("single", "TESTWORKER ok\n");
  std::string broken = dir_.file("broken"), deep = dir_.file("deep"), longName(250, 'n');
  for (const std::string& d : {broken, broken + "/a", deep, deep + "/" + longName}) makeDir(d);
  ASSERT_EQ(symlink((broken + "/nowhere").c_str(), (broken + "/gone").c_str()), 0);
  writeFile(dir_.file("file"), "x");
  const std::string start = "T  --------- start test ...\nT  ", end = "T  --------- finished test";
  const std::string ok = " op=ok         doc='", error = " op=error      doc='";
  struct Case {
    std::string path, out;
    int exitCode = 1;  // a failed document fails the run
  } cases[] = {
      {docs, start + "0001 0001" + ok + a + "'\nT  0001 0002" + error + docs + "/b'\nT  0002 0001" +
                 ok + a + "'\nT  0002 0002" + error + docs + "/b'\n" + end + " with error!\n"},
      {single,
       start + "0001 0001" + ok + single + "'\nT  0002 0001" + ok + single + "'\n" + end +
           " with success!\n",
       0},
      {broken, start + "cannot access path '" + broken + "/gone': 'No such file or directory'\n" +
                   end + "\n"},
      {deep, start + "cannot access path '" + deep + "/" + longName + "': 'File name too long'\n" +
                 end + "\n"},
      {dir_.file("missing"),
       "cannot access path '" + dir_.file("missing") + "': 'No such file or directory'\n"},
      {dir_.file("file"), "path '" + dir_.file("file") + "' must be a directory\n"},
  };
  for (const Case& c : cases) {
    ChildResult r = runChild(argv({"-test", "2", "-testpath", c.path}),
                             env({{"KVHOST", "localhost"}, {"KVPORT", kv.portText()}}));
    EXPECT_EQ(withoutStamps(r.out), c.out) << c.path;
    EXPECT_EQ(r.exitCode, c.exitCode) << c.path << r.err;
  }
  // The work cycle wrote the appended statement.
  EXPECT_TRUE(contains(readFile(a + "/COMMANDS"), "\nNEW line"));
  kv.drain(1);
  EXPECT_EQ(kv.countLines("HI "), 0);
  EXPECT_EQ(kv.countLines("OP "), 0);
}

TEST_F(WorkerProcessTest, OrdersAreReportedWithTheirOutcome) {
  ASSERT_TRUE(startRegistered());
  EXPECT_TRUE(contains(served_.kv->drain(0).back(), "type=\"kavlet_testworker\" -> 1"));
  struct Case {
    const char *name, *control;  // control: sent before the order, if any
    const char *commands, *status, *comment, *logLine;
  } cases[] = {
      {"done", nullptr, "TESTWORKER ok\n", "ok", "document has been processed",
       "Document '%' processed well"},
      {"failed", nullptr, "TESTWORKER fail\n", "error", "could not process document",
       "Error on document '%', 'error', 'could not process document'"},
      {"extended", nullptr, "TESTWORKER result 3\n", "ok", "document has been processed",
       "Document '%' processed well (service_return_value=3)"},
      // Under kvTest every document is reported as an error.
      {"done-kvtest", "kvTestOn", "TESTWORKER ok\n", "error", "document has been processed",
       "TEST::Document '%' processed well"},
      {"failed-kvtest", nullptr, "TESTWORKER fail\n", "error", "could not process document",
       "TEST::Error on document '%'"},
      {"done-after", "kvTestOff", "TESTWORKER ok\n", "ok", "document has been processed",
       "Document '%' processed well"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.control) {
      EXPECT_EQ(control(13, c.control), "reply 1");
    }
    std::string doc = document(c.name, c.commands);
    EXPECT_EQ(order(doc), "reply 1");
    EXPECT_TRUE(contains(nextReport(), report(doc, c.status, c.comment)));
    std::string logLine = std::regex_replace(c.logLine, std::regex("%"), doc);
    EXPECT_TRUE(waitForLog("Finished: '" + doc + "'"));
    std::string log = logText();
    EXPECT_TRUE(contains(log, "StartWith '" + doc + "'"));
    EXPECT_TRUE(contains(log, logLine)) << logLine;
  }
  // kvTestOff says the same as kvTestOn.
  EXPECT_EQ(count(logText(), "turn kvTest on"), 2);
  EXPECT_TRUE(served_.worker->running());
}

TEST_F(WorkerProcessTest, UnwritableCommandsIsReportedAsAnErrorAndARefusedReportEndsTheWorker) {
  // The worker runs as "nobody" when the test runs as root, so that the
  // directory's permissions hold for it.
  chmod(dir_.path().c_str(), 0755);
  chmod(dir_.file("config").c_str(), 0755);
  chmod(dir_.file("logs").c_str(), 0777);
  const std::string original = "TESTWORKER append NEW line\n";
  std::string doc = document("readonly", original);
  chmod((doc + "/COMMANDS").c_str(), 0644);
  chmod(doc.c_str(), 0555);
  ASSERT_TRUE(startRegistered({"--op-answer", "4"}, {{"TESTWORKER_UID", "65534"}}));

  EXPECT_EQ(order(doc), "reply 1");
  EXPECT_TRUE(contains(nextReport(), report(doc, "error", "can't write to COMMANDS", 4)));
  EXPECT_EQ(served_.worker->wait(20), 1);
  EXPECT_TRUE(contains(logText(), "KVop did not succeed, error: KVOP_SYNCERR  ... exiting"));
  chmod(doc.c_str(), 0755);
  EXPECT_EQ(readFile(doc + "/COMMANDS"), original);
}

// The KV's exit order ends the worker with 0 and without a goodbye, a stop
// signal with 1 after one.
TEST_F(WorkerProcessTest, ExitOrderAndStopSignalsEndTheWorkerAndHangupIsIgnored) {
  struct Case {
    int signal;  // 0: the exit order
    const char* logged[2];
  } cases[] = {
      {0, {"That's it for me, I'm exiting \n", ""}},
      {SIGINT, {"Got signal 2, exiting ...", ""}},
      {SIGTERM, {"Got signal 15,", "received Console Control Event 0x2, exiting"}},
      {SIGQUIT, {"Got signal 15,", "received Console Control Event 0x1, exiting"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.signal);
    ASSERT_TRUE(startRegistered());
    // The signal thread takes the hang-up first (lower number, sent first):
    // were it a stop, it would show in the log below.
    kill(served_.worker->pid(), SIGHUP);
    EXPECT_EQ(control(13, "version"), "reply 1");
    const int stopped = c.signal != 0;  // the exit code, the goodbyes, the signals logged
    if (stopped) {
      kill(served_.worker->pid(), c.signal);
    } else {  // no reply: the worker is gone
      kvminiCall(served_.at, {"ctrl", "--timeout", "1", "0", ""});
    }
    EXPECT_EQ(served_.worker->wait(20), stopped);
    EXPECT_EQ(served_.kv->waitFor("BYE ", nullptr, stopped ? 20 : 1), stopped == 1);
    std::string log = logText();
    for (const char* part : c.logged) EXPECT_TRUE(contains(log, part)) << part;
    EXPECT_EQ(count(log, "Got signal "), stopped);
    remove(logPath().c_str());
  }
}

TEST_F(WorkerProcessTest, AStopSignalWaitsForTheOrderInHandAndItsReport) {
  ASSERT_TRUE(startRegistered());
  std::string release = dir_.file("release"),
              held = document("held", "TESTWORKER hold " + release + "\n");
  EXPECT_EQ(order(held), "reply 1");  // acknowledged while the work goes on
  ASSERT_TRUE(waitForText(release + ".entered"));
  kill(served_.worker->pid(), SIGTERM);
  ASSERT_TRUE(waitForLog("Got signal 15, exiting ..."));
  EXPECT_TRUE(served_.worker->running());
  writeFile(release, "");
  // The report first, then the goodbye.
  EXPECT_TRUE(contains(nextReport(), report(held, "ok", "document has been processed")));
  EXPECT_TRUE(served_.kv->waitFor("BYE "));
  EXPECT_EQ(served_.worker->wait(20), 1);
}

TEST_F(WorkerProcessTest, FailedRegistrationsEndTheWorkerWithTheirExitCodes) {
  KvMini refusing({"--refuse"});
  int silent;
  std::string closedPort = std::to_string(unservedPort(SOCK_DGRAM, &silent));
  struct Case {
    const char* name;
    std::string host, port;
    int oneShot;  // the exit code with -oneshot; 1 without
    const char* logged;
    std::string where;  // the line after it, naming the KV
  } cases[] = {
      {"refused", "localhost", refusing.portText(), 1,
       "Kavlet(kavlet_testworker) registration has *** not *** been accepted (already registered "
       "or not in configuration file)",
       ""},
      {"no answer", "localhost", closedPort, 3, "Timeout for KV host",
       "KV host 'localhost', port " + closedPort + " did not answer\n"},
      {"unknown host", "no-such-host.invalid", closedPort, 2,
       "Sorry, host where KV is running is *** not *** reachable",
       "KV host 'no-such-host.invalid', port " + closedPort + ": "},
  };
  for (const Case& c : cases) {
    for (bool oneShot : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (oneShot ? " one-shot" : " serving"));
      std::vector<std::string> a = argv({"-kvhost", c.host, "-P", c.port});
      if (oneShot) a.push_back("-oneshot");
      ChildResult r = runChild(a, env({{"KLCTO", "2/1"}}));
      EXPECT_EQ(r.exitCode, oneShot ? c.oneShot : 1) << r.err;
      std::string log = logText();
      size_t at = log.find(c.logged);
      ASSERT_NE(at, std::string::npos) << log;
      size_t next = log.find('\n', at) + 1;
      EXPECT_TRUE(contains(log.substr(next, log.find('\n', next) + 1 - next), c.where)) << log;
      remove(logPath().c_str());
    }
  }
  close(silent);
}

TEST_F(WorkerProcessTest, OneShotRegistersServesOnceAndSaysGoodbye) {
  KvMini kv;
  struct Case {
    const char* action;
    int port, exitCode;
  } cases[] = {
      {"ok", kv.port(), 0},
      {"fail", kv.port(), 1},
      // The port is handed on as an unsigned 16-bit value: modulo 65536.
      {"ok", kv.port() + 65536, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.action) + " " + std::to_string(c.port));
    ChildResult r =
        runChild(argv({"-kvhost", "localhost", "-P", std::to_string(c.port), "-oneshot"}),
                 env({{"TESTWORKER_ACTION", c.action}}));
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    EXPECT_TRUE(kv.waitFor("HI "));
    EXPECT_TRUE(kv.waitFor("BYE "));
    EXPECT_TRUE(contains(logText(), "registered with the KV at localhost port " + kv.portText() +
                                        " as type 'kavlet_testworker', orders to port "));
  }
  EXPECT_TRUE(contains(logText(), "document '(none)': fail"));
}

// 127.0.0.2 answers each of the worker's calls first, with the right xid.
TEST_F(WorkerProcessTest, AnswersFromAnotherAddressNeitherRegisterNorEndTheWorker) {
  std::string doc = document("forged", "TESTWORKER ok\n");
  rpc_test::UdpSocket kv, forger(INADDR_LOOPBACK + 1);
  // No retransmission: the KV sees each call once.
  BackgroundChild worker(
      argv({}),
      env({{"KVHOST", "127.0.0.1"}, {"KVPORT", std::to_string(kv.port())}, {"KLCTO", "30/30"}}));
  // The forger answers the worker's next call first, then the KV: accepted
  // replies with an int result (xid, REPLY, MSG_ACCEPTED, null verifier, SUCCESS).
  auto forgeThenAnswer = [&](uint32_t forged, uint32_t genuine) {
    std::vector<uint8_t> call;
    sockaddr_in from;
    ASSERT_TRUE(kv.receive(&call, 20000, &from));
    forger.sendTo(rpc_test::words({rpc_test::wordAt(call, 0), 1, 0, 0, 0, 0, forged}), from);
    kv.sendTo(rpc_test::words({rpc_test::wordAt(call, 0), 1, 0, 0, 0, 0, genuine}), from);
  };
  forgeThenAnswer(0, 1);  // a forged "not accepted" would end it at once
  ASSERT_TRUE(waitForLog("orders to port"));
  const std::string at = "127.0.0.1:" + std::to_string(numberAfter(logText(), "orders to port"));
  std::string orderReply;
  std::thread order([&] {
    orderReply = kvminiCall(at, {"work", "--timeout", "30", "--retry", "30", doc});
  });
  forgeThenAnswer(99, 0);  // the report: a forged 99 would end the worker
  order.join();
  EXPECT_EQ(orderReply, "reply 1");
  EXPECT_EQ(worker.wait(1), -1) << logText();
  EXPECT_EQ(count(logText(), "datagram from 127.0.0.2:"), 2) << "both seen and dropped";
  worker.stop(9);
}

}  // namespace
