// clockette end to end: the program as a child process against the test
// Timestamp Server (and, in KV mode, the KV emulator kvmini), all on
// loopback. Every timestamp file is verified by OpenSSL against the test CA
// and its data file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/KvPeers.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "testing/TimestampFile.h"

namespace {

using namespace testing_support;

const std::string kProgram = std::string(CLOCKETTE_BINARY_DIR) + "/app/clockette";
const std::string kOneFile = "TIMESTAMP_FILE data.txt data.tst\n";

class EndToEndTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    pki_ = new TempDir();
    tsa_ = startTsa({});
  }
  static void TearDownTestSuite() {
    delete tsa_;
    delete pki_;
  }
  // A server sharing the suite's certificates (made once), checked to be ready.
  static TestTsa* startTsa(TestTsaOptions options) {
    options.dir = pki_->path();
    auto* tsa = new TestTsa(testTsaProgram(), options);
    EXPECT_TRUE(tsa->ready()) << options.fault;
    return tsa;
  }

  void SetUp() override {
    ASSERT_TRUE(tsa_->ready());
    std::filesystem::create_directories(dir_.file("config/setup"));
    makeDir(dir_.file("logs"));
    makeDir(docs_);
    options_.cwd = dir_.path();
    options_.clearEnv = true;  // nothing of the calling shell's settings
    options_.env = {
        {"CONFIG", dir_.file("config")}, {"ZEPH_SRV_LOG", dir_.file("logs")},
        {"KV_NOTIFY_FILE", notices_},    {"KV_PROTOCOL", "on"},
        {"TIMESTAMP_HOST", "127.0.0.1"}, {"TIMESTAMP_PORT", std::to_string(tsa_->httpPort())}};
  }

  // A document directory under docs_ with COMMANDS and data files.
  std::string addDocument(const std::string& name, const std::string& commands,
                          const std::map<std::string, std::string>& files = {}) {
    std::string doc = docs_ + "/" + name;
    makeDir(doc);
    writeFile(doc + "/COMMANDS", commands);
    for (const auto& f : files) {
      std::filesystem::create_directories(std::filesystem::path(doc + "/" + f.first).parent_path());
      writeFile(doc + "/" + f.first, f.second);
    }
    return doc;
  }
  // A fresh docs_ for the next run of a test that runs the program more than once.
  void freshDocs(const std::string& name) {
    docs_ = dir_.file(name);
    makeDir(docs_);
  }

  // clockette -test over docs_, logging to logs/clockette.log.
  std::vector<std::string> testArgs(std::vector<std::string> extra = {}) const {
    extra.insert(extra.begin(),
                 {kProgram, "-test", "-testpath", docs_, "-logfile", "clockette.log"});
    return extra;
  }
  ChildResult runTest(std::vector<std::string> extra = {}) {
    return runChild(testArgs(std::move(extra)), options_);
  }
  // The end of doc's line in the test-mode output; with its number (from 1)
  // where the order matters.
  static std::string resultLine(const std::string& status, const std::string& doc, int number = 0) {
    char head[32] = "";
    if (number > 0) snprintf(head, sizeof head, "]  0001 %04d", number);
    return head + (" op=" + status + std::string(10 - status.size(), ' ') + " doc='" + doc + "'\n");
  }
  // kvmini handing out the documents of docs_ and the worker serving it
  // (at logLevel); false when the registration was not seen.
  bool serve(std::vector<std::string> kvArgs = {}, const char* logLevel = "10") {
    std::vector<std::string> kv = {"--bind",  "127.0.0.1", "--worker-host", "127.0.0.1",
                                   "--queue", docs_,       "--exit-on-bye"};
    kv.insert(kv.end(), kvArgs.begin(), kvArgs.end());
    return served_.start(kv, {kProgram, "-logfile", "clockette.log", "-loglevel", logLevel},
                         options_);
  }
  bool waitForLog(const std::string& part) const { return waitForText(logFile(), part); }
  std::string logFile() const { return dir_.file("logs/clockette.log"); }
  std::string log() const { return readIfThere(logFile()); }
  void removeLog() const { remove(logFile().c_str()); }
  std::string notices() const { return readIfThere(notices_); }
  static std::string verify(const std::string& tst, const std::string& data) {
    return verifyTimestampFile(tst, data, *tsa_);
  }
  // Under dir, each timestamp file (even places) verifies against its data file (the next).
  static void expectStamped(const std::string& dir, const std::vector<std::string>& pairs) {
    for (size_t i = 0; i + 1 < pairs.size(); i += 2)
      EXPECT_EQ(verify(dir + "/" + pairs[i], dir + "/" + pairs[i + 1]), "") << pairs[i];
  }
  static void expectAll(const std::string& text, const std::vector<std::string>& parts) {
    for (const std::string& part : parts)
      EXPECT_TRUE(contains(text, part)) << part << "\nin\n" << text;
  }

  static inline TempDir* pki_ = nullptr;
  static inline TestTsa* tsa_ = nullptr;
  TempDir dir_;
  std::string docs_ = dir_.file("docs");
  std::string notices_ = dir_.file("notices");
  ChildOptions options_;
  ServedWorker served_;
};

TEST_F(EndToEndTest, FilesAndComponentsAreStampedAndTheNextRunStartsFromTheBackup) {
  TempDir elsewhere;
  const std::string outside = elsewhere.file("outside");
  writeFile(outside + ".dat", "outside the document");
  const std::string commands =
      "DOCTYPE contract\nTIMESTAMP_FILE \"report one.pdf\" \"report one.tst\"\n"
      "TIMESTAMP_FILE sub/b.xml sub/b.tst\nTIMESTAMP_FILE " +
      outside + ".dat " + outside +
      ".tst\nTIMESTAMP_COMP\nCOMP comp1 application/pdf c1.pdf POOL_A\n"
      "COMP \"comp 2\" application/pdf \"c2 two.pdf\"\nCOMP comp3 text/plain c3.txt\n"
      "COMP_TIMESTAMP_FILE \"comp3\" \"comp3_ts0.txt\"\n";
  // clang-format off
  std::string doc = addDocument("doc", commands,
      {{"report one.pdf", "report"}, {"sub/b.xml", "<b/>"}, {"c1.pdf", "component one"},
       {"c2 two.pdf", "component two"}, {"c3.txt", "component three"},
       {"comp1_ts0.txt", "older"}, {"comp1_ts1.txt", "older"}});
  // clang-format on
  // Files outside the documents are reached only through an allowed root.
  options_.env["TS_ALLOWED_ROOTS"] = "/nonexistent:" + elsewhere.path();
  // What the run appends; the number of the second component's file follows.
  const std::string stamped = commands +
                              "COMP_TIMESTAMP_FILE \"comp1\" \"comp1_ts2.txt\"\n"
                              "COMP_TIMESTAMP_FILE \"comp 2\" \"comp 2_ts";

  ChildResult r = runTest({"-loglevel", "9"});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err << log();
  expectAll(r.out, {resultLine("ok", doc), "--------- finished test with success!\n"});
  expectStamped(doc, {"report one.tst", "report one.pdf", "sub/b.tst", "sub/b.xml", "comp1_ts2.txt",
                      "c1.pdf", "comp 2_ts0.txt", "c2 two.pdf"});
  EXPECT_EQ(verify(outside + ".tst", outside + ".dat"), "");
  EXPECT_EQ(readFile(doc + "/comp1_ts1.txt"), "older");
  EXPECT_FALSE(fileExists(doc + "/comp3_ts0.txt"));
  EXPECT_EQ(readFile(doc + "/COMMANDS"), stamped + "0.txt\"\n");
  expectAll(readFile(doc + "/KVprotocol"),
            {" [clockette] got timestamps from Timestamp Server for document '" + doc + "'\n"});
  EXPECT_EQ(notices(), "");
  expectAll(
      log(),
      {"cannot get file status of file '" + doc + "/comp1_ts2.txt': 'No such file or directory'",
       "skip timestamping of component 'comp3', because of COMP_TIMESTAMP_FILE statement"});

  // The backup of COMMANDS stays after success, and the same worker restores
  // it before it reads the document again: the appended statements are gone
  // then, and so are the files they named, unless another statement names
  // one; the components are stamped once more into the same names. A port
  // above the range is handed on modulo 65536.
  EXPECT_EQ(readFile(doc + "/COMMANDS.clockette"), commands);
  writeFile(doc + "/COMMANDS.other", "TIMESTAMP_FILE c2.pdf \"comp 2_ts0.txt\"\n");
  r = runTest({"-port", std::to_string(tsa_->httpPort() + 65536)});
  ASSERT_EQ(r.exitCode, 0) << r.out << log();
  expectStamped(doc, {"comp1_ts2.txt", "c1.pdf", "comp 2_ts1.txt", "c2 two.pdf"});
  EXPECT_FALSE(fileExists(doc + "/comp1_ts3.txt"));
  EXPECT_EQ(readFile(doc + "/comp1_ts1.txt"), "older");
  EXPECT_EQ(readFile(doc + "/COMMANDS"), stamped + "1.txt\"\n");
  EXPECT_EQ(readFile(doc + "/COMMANDS.clockette"), commands);
}

TEST_F(EndToEndTest, WrongStatementsAreSkippedOrFailTheDocumentWithANotice) {
  // Neither a one-token file statement nor a component without TIMESTAMP_COMP fails a document.
  std::string skip = addDocument(
      "a-skip", "TIMESTAMP_FILE lonely.pdf\n" + kOneFile + "COMP c text/plain data.txt\n",
      {{"data.txt", "a"}});
  std::string broken = addDocument(
      "b-wrong-comp",
      kOneFile + "TIMESTAMP_COMP\nCOMP good text/plain data.txt\nCOMP broken text/plain\n",
      {{"data.txt", "b"}});
  // A drive path counts as absolute: it is used without the directory.
  std::string missing = addDocument(
      "c-missing-source",
      kOneFile +
          "TIMESTAMP_FILE C:\\data\\a.pdf a.tst\nTIMESTAMP_COMP\nCOMP late text/plain data.txt\n",
      {{"data.txt", "c"}});

  ChildResult r = runTest();
  EXPECT_EQ(r.exitCode, 1) << r.out << log();
  expectAll(r.out, {resultLine("ok", skip), resultLine("error", broken),
                    resultLine("error", missing), "--------- finished test with error!\n"});
  EXPECT_EQ(verify(skip + "/data.tst", skip + "/data.txt"), "");
  EXPECT_FALSE(fileExists(skip + "/c_ts0.txt"));
  EXPECT_EQ(notices(),
            "SRV BASE 701 ERR: Kavlet 'clockette' failed because of wrong COMP COMMANDS "
            "statement in document '" +
                broken +
                "'\nSRV BASE 704 ERR: Kavlet 'clockette' "
                "cannot read file 'C:\\data\\a.pdf' of document '" +
                missing + "'\n");
  expectAll(log(),
            {"ignore wrong TIMESTAMP_FILE COMMANDS statement: 'lonely.pdf'",
             "wrong COMP COMMANDS statement in document '" + broken + "': 'broken text/plain'",
             "requestTimestamp(source_file='C:\\data\\a.pdf',timestamp_file='" + missing +
                 "/a.tst') failed."});
}

// Documents built to hurt the worker or its neighbours, and one held by
// another process. Each fails on its own with a text naming the file, and
// stays as it was: COMMANDS as it was, no timestamp file (not even that of
// the good statement before the bad one), no backup made, no protocol line.
TEST_F(EndToEndTest, HostileDocumentsFailAndAreLeftAsTheyWere) {
  options_.env["DOCUMENT_LOCK_WAIT"] = "1";
  // The whole test directory is open to documents, but not the worker's files in it.
  options_.env["TS_ALLOWED_ROOTS"] = dir_.path();
  writeFile(dir_.file("config/setup/COMMON.Setup"), "LOGLEVEL=2\n");
  int lock = -1;
  TempDir elsewhere;
  const std::string secret = elsewhere.file("secret");
  writeFile(secret, "TIMESTAMP_PASSWORD=hunter2\n");
  struct Case {
    std::string name;
    std::string statement;  // the second statement, after a good one
    std::function<void(const std::string& doc)> prepare;
    std::string text;         // in the log; "D" stands for the document's path
    std::string notice = "";  // in the notifications, likewise
  };
  using Path = const std::string&;
  auto refusedAs = [](Path target, Path file) {
    return "timestamp file 'D/" + target + "' refused: it is the document's file 'D/" + file + "'";
  };
  std::vector<Case> cases = {
      {"commands", "data.txt COMMANDS", nullptr, refusedAs("COMMANDS", "COMMANDS"),
       "SRV BASE 703 ERR: Kavlet 'clockette' cannot write timestamp file 'D/COMMANDS' of document"},
      {"backup-via-parent", "data.txt ../backup-via-parent/COMMANDS.clockette", nullptr,
       refusedAs("../backup-via-parent/COMMANDS.clockette", "COMMANDS.clockette")},
      {"other-backup", "data.txt COMMANDS.other", nullptr,
       refusedAs("COMMANDS.other", "COMMANDS.other")},
      {"protocol", "data.txt KVprotocol", nullptr, refusedAs("KVprotocol", "KVprotocol")},
      {"link-to-commands", "data.txt link",
       [](Path d) { ASSERT_EQ(symlink("COMMANDS", (d + "/link").c_str()), 0); },
       refusedAs("link", "COMMANDS")},
      {"source-itself", "data.txt data.txt", nullptr,
       "timestamp file 'D/data.txt' refused: it is its source file 'D/data.txt'"},
      {"hard-link-to-source", "data.txt hard",
       [](Path d) { ASSERT_EQ(link((d + "/data.txt").c_str(), (d + "/hard").c_str()), 0); },
       "timestamp file 'D/hard' refused: it is its source file 'D/data.txt'"},
      {"commands-is-a-link", "data.txt data.tst",
       [&](Path d) {
         writeFile(elsewhere.file("commands"), kOneFile);
         unlink((d + "/COMMANDS").c_str());
         ASSERT_EQ(symlink(elsewhere.file("commands").c_str(), (d + "/COMMANDS").c_str()), 0);
       },
       "file 'D/COMMANDS' is a symbolic link; it is not opened"},
      {"backup-is-a-link", "data.txt data.tst",
       [&](Path d) { ASSERT_EQ(symlink(secret.c_str(), (d + "/COMMANDS.clockette").c_str()), 0); },
       "refused backup 'D/COMMANDS.clockette': it is no regular file owned by this worker's user"},
      {"source-outside", secret + " leak.tst", nullptr,
       "source file '" + secret + "' refused: it lies outside the directories",
       "SRV BASE 703 ERR: Kavlet 'clockette' cannot write timestamp file 'D/leak.tst'"},
      {"worker-log", "data.txt ../../logs/clockette.log", nullptr,
       "timestamp file 'D/../../logs/clockette.log' refused: it is the worker's file"},
      {"setup-package", "../../config/setup/COMMON.Setup leak.tst", nullptr,
       "source file 'D/../../config/setup/COMMON.Setup' refused: it is the worker's file"},
      {"held-by-another-process", "data.txt data.tst",
       [&](Path d) {
         lock = open((d + "/.COMMANDS.lock").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
         struct flock whole = {};
         whole.l_type = F_WRLCK;
         ASSERT_EQ(fcntl(lock, F_OFD_SETLK, &whole), 0);
       },
       "is being worked on by another process (lock 'D/.COMMANDS.lock' held for 1 s)"},
  };
  cases.push_back(
      geteuid() == 0
          ? Case{"backup-of-another-user", "data.txt data.tst",
                 [](Path d) {
                   writeFile(d + "/COMMANDS.clockette", "TIMESTAMP_FILE data.txt x.tst\n");
                   ASSERT_EQ(chown((d + "/COMMANDS.clockette").c_str(), 65534, 65534), 0);
                 },
                 "refused backup 'D/COMMANDS.clockette'"}
          : Case{"commands-unreadable", "data.txt data.tst",
                 [](Path d) { chmod((d + "/COMMANDS").c_str(), 0); },
                 "cannot open file D/COMMANDS: errno=Permission denied"});
  std::map<std::string, std::string> before;
  for (const Case& c : cases) {
    std::string doc = addDocument(
        c.name, "TIMESTAMP_FILE first.txt first.tst\nTIMESTAMP_FILE " + c.statement + "\n",
        {{"first.txt", "first"}, {"data.txt", "data"}});
    if (c.prepare) c.prepare(doc);
    before[c.name] = readIfThere(doc + "/COMMANDS");
  }

  ChildResult r = runTest();
  close(lock);
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 1) << r.out << log();
  const std::string text = log(), notes = notices();
  // Only a "D/" that starts a path is the placeholder: a temporary directory's random name may
  // end in "D" too.
  auto withDoc = [](Path t, Path d) {
    return std::regex_replace(t, std::regex("(^|['\\s])D/"), "$1" + d + "/");
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string doc = docs_ + "/" + c.name;
    EXPECT_TRUE(contains(r.out, resultLine("error", doc))) << r.out;
    EXPECT_TRUE(contains(text, withDoc(c.text, doc))) << withDoc(c.text, doc);
    EXPECT_TRUE(c.notice.empty() || contains(notes, withDoc(c.notice, doc))) << notes;
    EXPECT_EQ(readFile(doc + "/COMMANDS"), before[c.name]);
    EXPECT_FALSE(fileExists(doc + "/first.tst"));
    EXPECT_FALSE(fileExists(doc + "/leak.tst"));
    EXPECT_FALSE(fileExists(doc + "/KVprotocol"));
    if (struct stat s; lstat((doc + "/COMMANDS.clockette").c_str(), &s) == 0) {
      EXPECT_TRUE(contains(c.name, "backup")) << "backup made";
    }
  }
  EXPECT_FALSE(contains(text + readFile(docs_ + "/backup-is-a-link/COMMANDS"), "hunter2"));
}

// Crash safety: runs killed at random moments, then two workers side by side
// to the end, taking turns on the documents. No document may be left damaged:
// COMMANDS holds its statements plus exactly the lines of the last run, every
// named timestamp file verifies, and no file of the documents is empty (only
// the lock file holds nothing by design).
TEST_F(EndToEndTest, RunsKilledAtRandomLeaveEveryDocumentWhole) {
  constexpr int kDocuments = 200, kKills = 8;
  unsigned seed = static_cast<unsigned>(time(nullptr));
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string commands =
      "DOCTYPE test\nTIMESTAMP_FILE data.txt data.tst\nTIMESTAMP_COMP\nCOMP c text/plain c.txt\n";
  std::vector<std::string> docs;
  for (int i = 0; i < kDocuments; ++i)
    docs.push_back(addDocument("d" + std::to_string(1000 + i), commands,
                               {{"data.txt", "data " + std::to_string(i)}, {"c.txt", "c"}}));
  const std::vector<std::string> args = testArgs();
  const std::regex added("COMP_TIMESTAMP_FILE \"c\" \"(c_ts[0-9]+\\.txt)\"\n");
  std::uniform_int_distribution<int> delayMs(50, 1500);
  for (int k = 0; k < kKills; ++k) {
    BackgroundChild worker(args, options_);
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));
    worker.stop(SIGKILL);
  }
  BackgroundChild first(args, options_);
  BackgroundChild second(args, options_);
  ASSERT_EQ(first.wait(120), 0) << log();
  ASSERT_EQ(second.wait(120), 0) << log();
  for (const std::string& doc : docs) {
    std::string now = readFile(doc + "/COMMANDS");
    std::smatch m;
    if (now.compare(0, commands.size(), commands) != 0 ||
        !std::regex_match(now.cbegin() + commands.size(), now.cend(), m, added)) {
      ADD_FAILURE() << doc << ": COMMANDS is\n" << now;
      continue;
    }
    expectStamped(doc, {"data.tst", "data.txt", m[1].str(), "c.txt"});
    EXPECT_EQ(readFile(doc + "/COMMANDS.clockette"), commands) << doc;
    for (const auto& entry : std::filesystem::directory_iterator(doc)) {
      if (entry.path().filename() == ".COMMANDS.lock") continue;
      EXPECT_GT(entry.file_size(), 0u) << entry.path();
    }
  }
}

// From the options or from a password file only its owner may read; not
// even the highest levels with libcurl's own trace show them.
TEST_F(EndToEndTest, CredentialsReachTheServerButNoOutputOrLog) {
  TestTsaOptions guard;
  guard.requireAuth = true;
  guard.login = "secret-user";
  guard.password = "secret-word";
  std::unique_ptr<TestTsa> guarded(startTsa(guard));
  std::string doc = addDocument("doc", kOneFile, {{"data.txt", "d"}});
  std::string passwordFile = dir_.file("password");
  writeFile(passwordFile, "secret-word\n");
  options_.env["TIMESTAMP_PORT"] = std::to_string(guarded->httpPort());
  for (const char* on : {"LOG_DEBUG", "LOG_ENTRY", "LOG_INFO", "LOG_RPC", "CURL_DEBUG"})
    options_.env[on] = "on";
  const ChildOptions plain = options_;
  struct Case {
    const char* name;
    std::vector<std::string> args;
    mode_t passwordMode;  // 0: no password file
    const char* logged;
  } cases[] = {
      // clang-format off
      {"options", {"-loglevel", "13", "-login", "secret-user", "-password", "secret-word"}, 0,
       "argv[10]='-password'   argv[11]='***'"},
      {"password file", {"-loglevel", "13", "-login", "secret-user"}, 0600,
       "argv[8]='-login'   argv[9]='***'"},
      {"password file for all", {"-loglevel", "13", "-login", "secret-user"}, 0604,
       "TIMESTAMP_PASSWORD_FILE refused: '"},
      // clang-format on
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    options_ = plain;
    if (c.passwordMode != 0) {
      chmod(passwordFile.c_str(), c.passwordMode);
      options_.env["TIMESTAMP_PASSWORD"] = "overridden by the file";
      options_.env["TIMESTAMP_PASSWORD_FILE"] = passwordFile;
    }
    ChildResult r = runTest(c.args);
    bool refused = c.passwordMode == 0604;
    EXPECT_EQ(r.exitCode, refused ? 1 : 0) << r.out << r.err << log();
    EXPECT_EQ(refused ? "" : verify(doc + "/data.tst", doc + "/data.txt"), "");
    std::string everything = r.out + r.err + log() + readIfThere(doc + "/KVprotocol");
    EXPECT_TRUE(contains(everything, c.logged)) << everything;
    for (const char* secret : {"secret", "c2VjcmV0LXVzZXI6c2VjcmV0LXdvcmQ="})
      EXPECT_FALSE(contains(everything, secret)) << secret;
    remove((doc + "/data.tst").c_str());
    removeLog();
  }
}

// One warning for a missing COMMON package, none for a missing -env package.
TEST_F(EndToEndTest, TheDefaultLevelShowsTheSettingsTheSummaryAndAMissingCommonSetup) {
  addDocument("a-good", "TIMESTAMP_FILE one.txt one.tst\nTIMESTAMP_FILE two.txt two.tst\n",
              {{"one.txt", "1"}, {"two.txt", "2"}});
  addDocument("b-bad", "TIMESTAMP_FILE missing.txt missing.tst\n");
  options_.env["CLOCKETTE_METRICS_FILE"] = dir_.file("clockette.prom");
  options_.env["TIMESTAMP_LOGIN"] = "secret-user";
  options_.env["TIMESTAMP_PASSWORD"] = "secret-word";
  time_t started = time(nullptr);

  // Two forked workers: what they count reaches the summary and the file.
  ChildResult r = runTest({"-jobs", "2", "-env", "absent"});
  EXPECT_EQ(r.exitCode, 1) << r.out << log();
  const std::string server = "http://127.0.0.1:" + std::to_string(tsa_->httpPort());
  std::string text = log();
  expectAll(text, {"settings: type=clockette mode=test testpath=" + docs_ +
                       " jobs=2 log=" + logFile() + " loglevel=2 tsa=" + server +
                       "/<// protocol=http hash=SHA256 connect_timeout=10s timeout=60s "
                       "verify_host=off verify_peer=off basic_auth=******** nonce=off "
                       "certreq=off policy=none trust_anchors=off response_limit=4096 "
                       "parallel=8\n",
                   "summary: documents ok=1 failed=1, files stamped=2, ",
                   "'" + dir_.file("config/setup/COMMON.Setup") +
                       "' cannot be read: No such file or directory; only the environment"});
  EXPECT_EQ(count(text, " 4 main::main: "), 1) << text;
  EXPECT_FALSE(contains(text, "absent"));

  // Counted in two processes, written once.
  std::string metrics = readFile(dir_.file("clockette.prom"));
  const std::string answers = "clockette_tsa_answer_seconds_";
  expectAll(metrics, {"clockette_documents_total{result=\"ok\"} 1\n",
                      "clockette_documents_total{result=\"failed\"} 1\n",
                      "clockette_timestamps_total{result=\"ok\"} 2\n",
                      "clockette_timestamps_total{result=\"hash_failed\"} 1\n",
                      // Every result from the start, before it ever happened.
                      "clockette_timestamps_total{result=\"error_7\"} 0\n",
                      answers + "count{server=\"" + server + "\"} 2\n",
                      answers + "bucket{server=\"" + server + "\",le=\"60\"} 2\n",
                      answers + "bucket{server=\"" + server + "\",le=\"+Inf\"} 2\n",
                      "clockette_build_info{version=\"22.3.0\"} 1\n", "clockette_registered 0\n"});
  EXPECT_GE(numberAfter(metrics, "clockette_process_start_time_seconds"), started - 1);
  long lastSuccess = numberAfter(metrics, "clockette_last_success_timestamp_seconds");
  EXPECT_GE(lastSuccess, started);
  EXPECT_LE(lastSuccess, time(nullptr) + 1);

  // Without the configuration directory the warning names the directory.
  removeLog();
  options_.env["CONFIG"] = dir_.file("nowhere");
  runTest();
  text = log();
  EXPECT_EQ(count(text, " 4 main::main: "), 1) << text;
  expectAll(text, {"configuration directory '" + dir_.file("nowhere") +
                   "' (CONFIG) does not exist; only the environment"});
}

// kvmini hands out every document of its queue as an order, then sends the
// control message "print"; then the worker is stopped with SIGTERM.
TEST_F(EndToEndTest, UnderTheKvEachOrderIsReportedOkOrErrorAndOnlyTheKvMayCall) {
  std::string good = addDocument("a-good", "TIMESTAMP_FILE \"data file.txt\" data.tst\n",
                                 {{"data file.txt", "good"}});
  std::string bad = addDocument("b-bad", "TIMESTAMP_COMP\nCOMP broken text/plain\n");
  ASSERT_TRUE(serve({"--final-ctrl", "1", "--final-text", "print"}, "2"));
  std::string line;
  ASSERT_TRUE(served_.kv->waitFor("SEND CTRL", &line, 30)) << log();
  ASSERT_EQ(line.rfind("SEND CTRL 1 \"print\"", 0), 0u) << line;
  // The KV's exit order, from another loopback address.
  EXPECT_EQ(kvminiCall(served_.at, {"ctrl", "--from", "127.0.0.2", "0", ""}),
            "error RPC: Timed out");
  EXPECT_EQ(kvminiCall(served_.at, {"ctrl", "13", "version"}), "reply 1");
  EXPECT_EQ(served_.worker->stop(SIGTERM), 1);
  std::string all;
  for (const std::string& l : served_.kv->drain(10)) all += l + "\n";

  expectAll(all,
            {"document=\"" + good + "\" text2=\"ok\"", "document=\"" + bad + "\" text2=\"error\""});
  EXPECT_EQ(verify(good + "/data.tst", good + "/data file.txt"), "");
  expectAll(notices(), {"SRV BASE 701 ERR: "});
  std::string text = log();
  expectAll(text, {"summary: documents ok=1 failed=1, files stamped=1, ",
                   "call from 127.0.0.2:", " ignored: only the KV ('127.0.0.1') may call"});
  // The failure line says why on the line after it.
  EXPECT_TRUE(std::regex_search(text, std::regex("Error on document '[^\n]*/b-bad', 'error', .*\n"
                                                 ".*::work:     reason: wrong COMP COMMANDS")))
      << text;
}

// The time-outs are ten minutes: a stop that waited for them, or for the end
// of a terabyte, would be far beyond the seconds allowed here.
TEST_F(EndToEndTest, AStopEndsTheWorkerPromptlyInTheMiddleOfADocument) {
  TestTsaOptions hanging;
  hanging.fault = "hang";
  std::unique_ptr<TestTsa> silent(startTsa(hanging));
  struct Case {
    int signal;
    const char* protocol;
    int port;
    bool hugeSource;
    const char* busy;  // the log line that shows the worker in the middle of it
  } cases[] = {
      {SIGINT, "http", tsa_->httpPort(), true, "TIMESTAMP_FILE '"},
      {SIGTERM, "http", silent->httpPort(), false, "url: http://"},
      {SIGTERM, "tcp", silent->tcpPort(), false, "connected local port"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.busy);
    freshDocs(std::string("docs-") + c.protocol + std::to_string(c.hugeSource));
    std::string doc = addDocument("doc", kOneFile, {{"data.txt", "data"}});
    ASSERT_EQ(c.hugeSource ? truncate((doc + "/data.txt").c_str(), 1LL << 40) : 0, 0);
    options_.env["TIMESTAMP_PROTOCOL"] = c.protocol;
    options_.env["TIMESTAMP_PORT"] = std::to_string(c.port);
    options_.env["TS_TIMEOUT"] = options_.env["TS_CONNECT_TIMEOUT"] = "600";
    ASSERT_TRUE(serve());
    ASSERT_TRUE(waitForLog(c.busy)) << log();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(served_.worker->stop(c.signal, 5), 1) << log();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    EXPECT_TRUE(served_.kv->waitFor("BYE ")) << log();
    // Left as a failed document, and not reported: the KV hands it out again.
    EXPECT_EQ(served_.kv->countLines("OP "), 0);
    EXPECT_EQ(readFile(doc + "/COMMANDS"), kOneFile);
    EXPECT_FALSE(fileExists(doc + "/data.tst"));
    EXPECT_FALSE(fileExists(doc + "/KVprotocol"));
    EXPECT_EQ(notices(), "");
    expectAll(log(), {"Document '" + doc + "' left unfinished: the worker is stopping"});
    removeLog();
  }
}

// What /proc/<pid>/stat holds after the process name (state, parent, ...);
// "" for no such process.
std::string procStat(const std::string& pid) {
  std::string stat = readIfThere("/proc/" + pid + "/stat");
  size_t end = stat.rfind(')');
  return end == std::string::npos ? "" : stat.substr(end + 1);
}
std::vector<int> childrenOf(int pid) {
  std::vector<int> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    int parent = 0;
    if (sscanf(procStat(name).c_str(), " %*c %d", &parent) == 1 && parent == pid)
      found.push_back(atoi(name.c_str()));
  }
  return found;
}
// The CPU seconds a process has used; -1 once it is gone (a zombie counts as gone).
double cpuSeconds(int pid) {
  char state = 'Z';
  unsigned long user = 0, system = 0;
  int fields =
      sscanf(procStat(std::to_string(pid)).c_str(),
             " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lu %lu", &state, &user, &system);
  if (fields != 3 || state == 'Z') return -1;
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}
bool allGoneWithin(const std::vector<int>& pids, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (std::any_of(pids.begin(), pids.end(), [](int pid) { return cpuSeconds(pid) >= 0; })) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// -jobs 3 while every exchange takes seconds: a stop of one worker fails only
// its document, workers whose parent is killed end by themselves. No stop
// raises a notification, and nothing spins.
TEST_F(EndToEndTest, SideBySideWorkersStopWithTheParentAloneAndWhenTheParentDies) {
  TestTsaOptions slow;
  slow.extraArgs = {"--delay-ms", "4000"};
  std::unique_ptr<TestTsa> slowTsa(startTsa(slow));
  options_.env["TIMESTAMP_PORT"] = std::to_string(slowTsa->httpPort());
  for (int stop : {SIGTERM, 0, SIGKILL}) {  // 0: SIGTERM to one worker
    SCOPED_TRACE(stop);
    freshDocs("docs-" + std::to_string(stop));
    for (const char* name : {"a", "b", "c", "d"}) addDocument(name, kOneFile, {{"data.txt", name}});
    BackgroundChild parent(testArgs({"-jobs", "3", "-loglevel", "10"}), options_);
    ASSERT_TRUE(waitForLog("url: http://"));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::vector<int> workers = childrenOf(parent.pid());
    ASSERT_EQ(workers.size(), 3u);
    kill(stop == 0 ? workers[0] : parent.pid(), stop == 0 ? SIGTERM : stop);
    if (stop == 0) {
      EXPECT_TRUE(allGoneWithin({workers[0]}, std::chrono::seconds(2)));
      double before = cpuSeconds(parent.pid()) + cpuSeconds(workers[1]) + cpuSeconds(workers[2]);
      std::this_thread::sleep_for(std::chrono::seconds(1));
      double after = cpuSeconds(parent.pid()) + cpuSeconds(workers[1]) + cpuSeconds(workers[2]);
      EXPECT_LT(after - before, 0.3);
      std::string out, line;
      while (parent.readLine(&line, 30)) out += line + "\n";
      EXPECT_EQ(parent.wait(10), 1);
      EXPECT_EQ(count(out, " op=error "), 1) << out;
      EXPECT_TRUE(contains(out, resultLine("ok", docs_ + "/d", 4))) << out;
    } else {
      workers.push_back(parent.pid());
      EXPECT_TRUE(allGoneWithin(workers, std::chrono::seconds(2)));
      EXPECT_EQ(parent.wait(1), stop == SIGTERM ? 1 : 128 + SIGKILL);
    }
    EXPECT_EQ(notices(), "");
    removeLog();
  }
}

// The files of a document are stamped side by side, but what a document
// leaves behind must not depend on how many requests run at once: answers are
// applied in statement order and the first failing file ends the document.
TEST_F(EndToEndTest, AnyParallelismLeavesWhatOneAfterTheOtherLeaves) {
  struct Case {
    const char* name;
    const char* commands;
    const char* status;
    std::vector<std::string> present;  // timestamp files that must exist
    std::vector<std::string> absent;   // and those that must not
  };
  // The document's file names and COMMANDS (timestamps differ from run to run).
  auto snapshot = [](const std::string& doc) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(doc))
      names.insert(entry.path().filename());
    std::string text;
    for (const std::string& n : names) text += n + "\n";
    return text + "--\n" + readFile(doc + "/COMMANDS");
  };
  // clang-format off
  const std::vector<Case> cases = {
      // A failed document keeps none of its timestamp files.
      {"a-third-target-unwritable", "TIMESTAMP_FILE f1.txt t1.tst\nTIMESTAMP_FILE f2.txt t2.tst\n"
       "TIMESTAMP_FILE f3.txt nodir/t3.tst\nTIMESTAMP_FILE f4.txt t4.tst\n"
       "TIMESTAMP_FILE f5.txt t5.tst\n", "error", {}, {"t1.tst", "t2.tst", "t4.tst", "t5.tst"}},
      {"b-third-component-broken", "TIMESTAMP_COMP\nCOMP a text/plain f1.txt\n"
       "COMP a text/plain f2.txt\nCOMP broken text/plain\nCOMP d text/plain f4.txt\n"
       "COMP e text/plain f5.txt\n", "error", {},
       {"a_ts0.txt", "a_ts1.txt", "d_ts0.txt", "e_ts0.txt"}},
      // Names taken by earlier files of the same document are skipped, as
      // when each file is written before the next name is chosen.
      {"c-names-in-order", "TIMESTAMP_FILE f1.txt a_ts0.txt\nTIMESTAMP_COMP\n"
       "COMP a text/plain f2.txt\nCOMP b text/plain f3.txt\nCOMP a text/plain f4.txt\n"
       "COMP c text/plain f5.txt\n", "ok",
       {"a_ts0.txt", "a_ts1.txt", "b_ts0.txt", "a_ts2.txt", "c_ts0.txt"}, {"a_ts3.txt"}},
      // A file that cannot be hashed: no request at all.
      {"d-third-source-missing", "TIMESTAMP_FILE f1.txt t1.tst\nTIMESTAMP_FILE f2.txt t2.tst\n"
       "TIMESTAMP_FILE gone.txt t3.tst\nTIMESTAMP_FILE f4.txt t4.tst\n", "error", {},
       {"t1.tst", "t2.tst", "t4.tst"}},
      // Files that could meet at one temporary file are written in turn.
      {"e-one-target-thrice", "TIMESTAMP_FILE f1.txt t.tst\nTIMESTAMP_FILE f2.txt ./t.tst\n"
       "TIMESTAMP_FILE f3.txt t.tst\n", "ok", {"t.tst"}, {}},
      // (The second file's temporary file takes the place of the first.)
      {"f-target-named-as-a-temporary",
       "TIMESTAMP_FILE f1.txt .t.tst.tmp\nTIMESTAMP_FILE f2.txt t.tst\n", "ok", {"t.tst"},
       {".t.tst.tmp"}},
  };
  const std::map<std::string, std::string> data = {{"f1.txt", "one"}, {"f2.txt", "two"},
      {"f3.txt", "three"}, {"f4.txt", "four"}, {"f5.txt", "five"}};
  // clang-format on
  // One after the other, then side by side (files and documents).
  const std::pair<const char*, const char*> runs[] = {{"1", "1"}, {"8", "3"}};
  std::map<std::string, std::string> firstSnapshot;
  for (const auto& [parallel, jobs] : runs) {
    SCOPED_TRACE(std::string("TS_PARALLEL=") + parallel + " -jobs " + jobs);
    freshDocs(std::string("docs-") + parallel);
    for (const Case& c : cases) addDocument(c.name, c.commands, data);
    options_.env["TS_PARALLEL"] = parallel;
    ChildResult r = runTest({"-jobs", jobs});
    EXPECT_EQ(r.exitCode, 1) << r.out << log();
    for (size_t i = 0; i < cases.size(); ++i) {
      const Case& c = cases[i];
      std::string doc = docs_ + "/" + c.name;
      // Numbered in the documents' sorted order, whatever -jobs says.
      EXPECT_TRUE(contains(r.out, resultLine(c.status, doc, static_cast<int>(i + 1)))) << r.out;
      for (const std::string& f : c.present) EXPECT_TRUE(fileExists(doc + "/" + f)) << doc << f;
      for (const std::string& f : c.absent) EXPECT_FALSE(fileExists(doc + "/" + f)) << doc << f;
      if (firstSnapshot.count(c.name) == 0) firstSnapshot[c.name] = snapshot(doc);
      EXPECT_EQ(snapshot(doc), firstSnapshot[c.name]) << c.name;
    }
    std::string named = docs_ + "/c-names-in-order";
    expectStamped(named, {"a_ts1.txt", "f2.txt", "a_ts2.txt", "f4.txt", "c_ts0.txt", "f5.txt"});
    expectStamped(docs_ + "/e-one-target-thrice", {"t.tst", "f3.txt"});
    expectStamped(docs_ + "/f-target-named-as-a-temporary", {"t.tst", "f2.txt"});
    EXPECT_TRUE(contains(readFile(named + "/COMMANDS"),
                         "COMP_TIMESTAMP_FILE \"a\" \"a_ts1.txt\"\n"
                         "COMP_TIMESTAMP_FILE \"b\" \"b_ts0.txt\"\n"
                         "COMP_TIMESTAMP_FILE \"a\" \"a_ts2.txt\"\n"
                         "COMP_TIMESTAMP_FILE \"c\" \"c_ts0.txt\"\n"));
  }
}

// Test Timestamp Servers that fail in chosen ways, and loopback ports that
// refuse every connection. The servers count the requests they get.
TEST_F(EndToEndTest, FailuresThatMayPassAreRetriedOrSentOnAndAnswersAreNot) {
  const struct {
    const char* name;
    // "<fault>/<protocol>[*<requests that get the fault>]", the primary first;
    // fault "refuse" is a refusing port, "auth" a server demanding a login.
    std::vector<std::string> peers;
    std::map<std::string, std::string> env;
    int documents;
    bool stamped;
    std::vector<int> requests;  // per peer; -1 for a refusing port
    const char* logged;
    const char* notLogged = nullptr;
  } cases[] = {
      // clang-format off
      {"settings unset: one attempt, as designed", {"http500/http"}, {}, 1, false, {1},
       "HTTP error-code = 500 (test server fault: internal error)", "attempt 1"},
      {"nothing listens: the server named, and curl's own text", {"refuse/http"},
       {{"TS_CONNECT_TIMEOUT", "1"}}, 1, false, {-1}, "/<//: Failed to connect to 127.0.0.1 port "},
      {"nothing listens over tcp", {"refuse/tcp"},
       {{"TS_CONNECT_TIMEOUT", "1"}}, 1, false, {-1}, "Timestamp Server 127.0.0.1:"},
      {"refusing primary, working fallback", {"refuse/http", "/tcp"}, {}, 1, true, {-1, 1},
       "attempt 1 failed (Couldn't connect to server); skipped for 60 s, trying tcp://127.0.0.1:"},
      {"HTTP 500 primary", {"http500/http", "/https"}, {}, 1, true, {1, 1}, "failed (HTTP 500)"},
      {"dead first fallback", {"notworking/tcp", "refuse/tcp", "/http"},
       {{"TS_CONNECT_TIMEOUT", "1"}}, 1, true, {1, -1, 1}, "attempt 1 failed (no connection)"},
      {"a rejection is an answer: no retry, no fallback", {"reject/http", "/http"},
       {{"TS_RETRIES", "2"}}, 1, false, {1, 0}, "returned unexpected status 2", "attempt 1"},
      {"a token that fails the checks is an answer", {"otherimprint/http", "/http"},
       {{"TS_RETRIES", "2"}}, 1, false, {1, 0}, "Timestamp refused: the token covers", "attempt 1"},
      {"HTTP 4xx is an answer", {"auth/http", "/http"},
       {{"TS_RETRIES", "2"}}, 1, false, {1, 0}, "HTTP error-code = 401", "attempt 1"},
      {"the last allowed attempt answers", {"http500/http*2"},
       {{"TS_RETRIES", "2"}}, 1, true, {3}, "answered at attempt 3"},
      {"one failure more than allowed", {"http500/http*3"},
       {{"TS_RETRIES", "2"}}, 1, false, {3}, "attempt 3 failed (HTTP 500)", "attempt 4"},
      {"a time-out fails over", {"hang/http", "/http"},
       {{"TS_TIMEOUT", "2"}, {"TS_FILE_DEADLINE", "20"}}, 1, true, {1, 1}, "(Timeout was reached)"},
      {"the file deadline ends all attempts", {"hang/http", "/http"},
       {{"TS_RETRIES", "3"}, {"TS_FILE_DEADLINE", "2"}}, 1, false, {1, 0},
       "file deadline of 2 s reached"},
      {"a held server is skipped for the next document", {"http500/http", "/tcp"},
       {}, 2, true, {1, 2}, "attempts=1 ok=0 failed=1 held=1, tcp://127.0.0.1:"},
      {"no hold", {"http500/http", "/tcp"},
       {{"TS_FALLBACK_HOLD", "0"}}, 2, true, {2, 2}, "trying tcp"},
      // clang-format on
  };
  const ChildOptions plain = options_;
  int run = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    options_ = plain;
    options_.timeoutSeconds = 40;  // well below TS_TIMEOUT's default of 60 s
    freshDocs("docs-" + std::to_string(++run));
    std::vector<std::unique_ptr<TestTsa>> servers;
    std::vector<int> refusing;
    std::string fallback;
    for (const std::string& peer : c.peers) {
      size_t slash = peer.find('/'), star = peer.find('*');
      std::string fault = peer.substr(0, slash);
      std::string protocol = peer.substr(slash + 1, star - slash - 1);
      TestTsaOptions o;
      o.requireAuth = fault == "auth";
      o.login = "someone";
      o.fault = o.requireAuth ? "" : fault;
      if (star != std::string::npos) o.faultCount = atol(peer.c_str() + star + 1);
      servers.emplace_back(fault == "refuse" ? nullptr : startTsa(o));
      refusing.push_back(-1);
      int port = servers.back() ? servers.back()->portFor(protocol)
                                : unservedPort(SOCK_STREAM, &refusing.back());
      if (servers.size() == 1) {
        options_.env["TIMESTAMP_PROTOCOL"] = protocol;
        options_.env["TIMESTAMP_PORT"] = std::to_string(port);
      } else {
        fallback += "," + protocol + "://127.0.0.1:" + std::to_string(port);
      }
    }
    if (!fallback.empty()) options_.env["TIMESTAMP_FALLBACK"] = fallback.substr(1);
    for (const auto& e : c.env) options_.env[e.first] = e.second;
    std::vector<std::string> docs;
    for (int d = 0; d < c.documents; ++d)
      docs.push_back(addDocument(std::to_string(d), kOneFile, {{"data.txt", std::to_string(d)}}));

    ChildResult r = runTest();
    std::string text = log();
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, c.stamped ? 0 : 1) << r.out << r.err << text;
    EXPECT_TRUE(contains(text, c.logged)) << text;
    EXPECT_FALSE(c.notLogged && contains(text, c.notLogged)) << text;
    for (size_t i = 0; i < c.requests.size(); ++i)
      EXPECT_EQ(servers[i] ? count(servers[i]->stop(), "request transport=") : -1, c.requests[i])
          << "peer " << i;
    for (const std::string& doc : docs) {
      EXPECT_EQ(c.stamped ? verify(doc + "/data.tst", doc + "/data.txt") : "", "");
      EXPECT_EQ(fileExists(doc + "/data.tst"), c.stamped);
    }
    for (int fd : refusing) close(fd);
    removeLog();
  }
}

}  // namespace
