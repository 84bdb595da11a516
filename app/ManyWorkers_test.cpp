// Several clockette workers under one KV (kvmini) over one queue of documents,
// against the test Timestamp Server: each worker announces its own loopback
// address, as workers on different hosts do. Every document must be done and
// reported exactly once, also when a worker dies in the middle of one.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/KvPeers.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "testing/TimestampFile.h"

namespace {

using namespace testing_support;

const std::string kProgram = std::string(CLOCKETTE_BINARY_DIR) + "/app/clockette";

class ManyWorkersTest : public ::testing::Test {
 protected:
  // count documents, each with a file and a component to stamp.
  void addDocuments(int count) {
    makeDir(dir_.file("docs"));
    for (int i = 0; i < count; ++i) {
      std::string doc = dir_.file("docs/d" + std::to_string(i));
      makeDir(doc);
      writeFile(doc + "/COMMANDS",
                "TIMESTAMP_FILE a.txt a.tst\nTIMESTAMP_COMP\nCOMP c1 text/plain c1.txt\n");
      writeFile(doc + "/a.txt", "file of " + doc);
      writeFile(doc + "/c1.txt", "component of " + doc);
      docs_.push_back(doc);
    }
  }
  // The test TSA holding each answer delayMs, kvmini over the documents and
  // the workers; false when one did not start.
  bool start(int workers, int delayMs, const std::string& orderTimeout) {
    TestTsaOptions tsaOptions;
    tsaOptions.extraArgs = {"--delay-ms", std::to_string(delayMs)};
    tsa_ = std::make_unique<TestTsa>(testTsaProgram(), tsaOptions);
    kv_ = std::make_unique<KvMini>(std::vector<std::string>{
        "--bind", "127.0.0.1", "--queue", dir_.file("docs"), "--final-ctrl", "0",
        "--order-timeout", orderTimeout, "--wait-workers", std::to_string(workers)});
    if (!tsa_->ready() || kv_->port() < 0) return false;
    makeDir(dir_.file("logs"));
    ChildOptions options;
    options.cwd = dir_.path();
    options.clearEnv = true;
    options.env = {{"CONFIG", dir_.file("config")}, {"ZEPH_SRV_LOG", dir_.file("logs")},
                   {"KVHOST", "127.0.0.1"},          {"KVPORT", kv_->portText()}};
    for (int i = 0; i < workers; ++i) {
      options.env["MY_HOST_NAME"] = "127.0.0." + std::to_string(i + 2);
      workers_.push_back(std::make_unique<BackgroundChild>(
          std::vector<std::string>{kProgram, "-logfile", "w" + std::to_string(i) + ".log",
                                   "-host", "127.0.0.1", "-port",
                                   std::to_string(tsa_->httpPort())},
          options));
    }
    return true;
  }
  // Every document reported "ok" once and stamped once: both timestamp files
  // verify, one protocol line, one COMP_TIMESTAMP_FILE statement. The
  // workers that reported, by name.
  std::set<std::string> expectEachDocumentDoneOnce() {
    std::string summary;
    EXPECT_TRUE(kv_->waitFor("SUMMARY", &summary, 60));
    std::string n = std::to_string(docs_.size());
    EXPECT_TRUE(contains(summary, "SUMMARY documents=" + n + " ok=" + n + " error=0 ")) << summary;
    std::set<std::string> reporters;
    for (const std::string& doc : docs_) {
      SCOPED_TRACE(doc);
      int reports = 0;
      for (const std::string& line : kv_->drain(0)) {
        if (line.compare(0, 3, "OP ") != 0 || !contains(line, "document=\"" + doc + "\"")) continue;
        ++reports;
        EXPECT_TRUE(contains(line, "text2=\"ok\"")) << line;
        reporters.insert(line.substr(line.rfind(" worker=") + 8));
      }
      EXPECT_EQ(reports, 1);
      EXPECT_EQ(verifyTimestampFile(doc + "/a.tst", doc + "/a.txt", *tsa_), "");
      EXPECT_EQ(verifyTimestampFile(doc + "/c1_ts0.txt", doc + "/c1.txt", *tsa_), "");
      EXPECT_EQ(count(readFile(doc + "/KVprotocol"), "got timestamps"), 1);
      EXPECT_EQ(count(readFile(doc + "/COMMANDS"), "COMP_TIMESTAMP_FILE"), 1);
    }
    return reporters;
  }

  TempDir dir_;
  std::vector<std::string> docs_;
  std::unique_ptr<TestTsa> tsa_;
  std::unique_ptr<KvMini> kv_;
  std::vector<std::unique_ptr<BackgroundChild>> workers_;
};

TEST_F(ManyWorkersTest, WorkersShareTheQueueAndEndAtTheFinalOrder) {
  addDocuments(9);
  ASSERT_TRUE(start(3, 100, "60"));
  EXPECT_EQ(expectEachDocumentDoneOnce().size(), 3u);
  for (auto& w : workers_) EXPECT_EQ(w->wait(20), 0);
}

// Killed while its document waits for the Timestamp Server: no report, no
// goodbye. The document goes to the other worker once the order times out.
TEST_F(ManyWorkersTest, AKilledWorkersDocumentIsDoneOnceByAnother) {
  addDocuments(3);
  ASSERT_TRUE(start(2, 1500, "3"));
  std::string order;
  ASSERT_TRUE(kv_->waitFor("SEND WORK 1 \"" + docs_[0] + "\"", &order));
  BackgroundChild& victim = *workers_[contains(order, "to=127.0.0.2:") ? 0 : 1];
  victim.stop(SIGKILL);
  ASSERT_TRUE(kv_->waitFor("REQUEUE document=\"" + docs_[0] + "\""));
  EXPECT_EQ(expectEachDocumentDoneOnce().size(), 1u);
}

}  // namespace
