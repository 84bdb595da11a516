// Clockette::service on real document directories against the test
// Timestamp Server; every timestamp file is verified by OpenSSL.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "app/Clockette.h"
#include "base/Log.h"
#include "kavlet/docfiles/Document.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "testing/TimestampFile.h"
#include "tstl/tsrequest.h"

namespace {

using testing_support::fileExists;
using testing_support::LogCapture;
using testing_support::makeDir;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::TestTsa;
using testing_support::TestTsaOptions;
using testing_support::testTsaProgram;
using testing_support::verifyTimestampFile;
using testing_support::writeFile;

class ServiceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    pki_ = new TempDir();
    TestTsaOptions options;
    options.dir = pki_->path();
    tsa_ = new TestTsa(testTsaProgram(), options);
  }
  static void TearDownTestSuite() {
    delete tsa_;
    delete pki_;
  }

  void SetUp() override {
    ASSERT_TRUE(tsa_->ready());
    ASSERT_EQ(initTimeStamper(), 0);
    useServer(*tsa_);
    setenv("KV_NOTIFY_FILE", notices_.c_str(), 1);
    unsetenv("KV_PROTOCOL");
    doc_ = dir_.file("doc");
    makeDir(doc_);
    for (int level = 8; level <= 9; ++level) Log::setLevel(level, 1);
  }
  void TearDown() override {
    unsetenv("KV_NOTIFY_FILE");
    for (int level = 5; level <= Log::kMaxLevel; ++level) Log::setLevel(level, 0);
  }

  static void useServer(const TestTsa& tsa) {
    ASSERT_EQ(initTsServer("127.0.0.1", static_cast<uint16_t>(tsa.httpPort()), "http", "/"), 0);
  }

  // Runs the service over doc_ as the work cycle does: open, serve, close.
  int serve(const std::string& commands) {
    writeFile(doc_ + "/COMMANDS", commands);
    Clockette tool;
    tool.document = new Document(String(doc_.c_str()), String("clockette"), 1);
    int rc = tool.service(doc_.c_str());
    // The work cycle writes a document only when the service succeeded.
    if (rc == 1) {
      EXPECT_EQ(tool.document->closeAll(), 1);
    }
    delete tool.document;
    tool.document = nullptr;
    return rc;
  }
  std::string notices() const { return fileExists(notices_) ? readFile(notices_) : ""; }
  std::string protocol() const {
    return fileExists(doc_ + "/KVprotocol") ? readFile(doc_ + "/KVprotocol") : "";
  }

  static TempDir* pki_;
  static TestTsa* tsa_;
  TempDir dir_;
  std::string doc_;
  std::string notices_ = dir_.file("notices");
};

TempDir* ServiceTest::pki_ = nullptr;
TestTsa* ServiceTest::tsa_ = nullptr;

TEST_F(ServiceTest, StampsFilesAndComponentsAndAppendsTheirStatements) {
  TempDir elsewhere;
  writeFile(doc_ + "/report one.pdf", "report");
  writeFile(doc_ + "/b.xml", "bee");
  writeFile(doc_ + "/a.txt", "ay");
  writeFile(elsewhere.file("outside.dat"), "outside");
  makeDir(doc_ + "/stamps");
  // comp1 already has two timestamp files; comp3 a statement but no file.
  writeFile(doc_ + "/comp1_ts0.txt", "old");
  writeFile(doc_ + "/comp1_ts1.txt", "old");
  writeFile(doc_ + "/c1.pdf", "component one");
  writeFile(doc_ + "/c2 two.pdf", "component two");
  std::string commands =
      "TIMESTAMP_FILE \"report one.pdf\" \"stamps/report one.tst\"\n"
      "COMP comp1 application/pdf c1.pdf POOL_A\n"
      "TIMESTAMP_FILE " +
      elsewhere.file("outside.dat") + " " + elsewhere.file("outside.tst") +
      "\n"
      "TIMESTAMP_COMP\n"
      "COMP \"comp 2\" application/pdf \"c2 two.pdf\"\n"
      "COMP comp3 text/plain a.txt\n"
      "COMP_TIMESTAMP_FILE \"comp3\" \"comp3_ts0.txt\"\n"
      "TIMESTAMP_FILE b.xml b.tst\n";
  LogCapture log;
  ASSERT_EQ(serve(commands), 1);

  EXPECT_EQ(verifyTimestampFile(doc_ + "/stamps/report one.tst", doc_ + "/report one.pdf", *tsa_),
            "");
  EXPECT_EQ(
      verifyTimestampFile(elsewhere.file("outside.tst"), elsewhere.file("outside.dat"), *tsa_), "");
  EXPECT_EQ(verifyTimestampFile(doc_ + "/b.tst", doc_ + "/b.xml", *tsa_), "");
  EXPECT_EQ(verifyTimestampFile(doc_ + "/comp1_ts2.txt", doc_ + "/c1.pdf", *tsa_), "");
  EXPECT_EQ(verifyTimestampFile(doc_ + "/comp 2_ts0.txt", doc_ + "/c2 two.pdf", *tsa_), "");
  EXPECT_EQ(readFile(doc_ + "/comp1_ts1.txt"), "old");
  EXPECT_FALSE(fileExists(doc_ + "/comp3_ts0.txt"));

  EXPECT_EQ(readFile(doc_ + "/COMMANDS"),
            commands +
                "COMP_TIMESTAMP_FILE \"comp1\" \"comp1_ts2.txt\"\n"
                "COMP_TIMESTAMP_FILE \"comp 2\" \"comp 2_ts0.txt\"\n");
  EXPECT_NE(protocol().find(" [clockette] got timestamps from Timestamp Server for document '" +
                            doc_ + "'\n"),
            std::string::npos)
      << protocol();
  EXPECT_EQ(notices(), "");

  // Every file statement is done before the first component, and the skip
  // set is complete before the first COMP is looked at.
  std::string text = log.text();
  size_t lastFile = text.find("Timestamp for document " + doc_ + "/b.xml");
  size_t firstComp = text.find(
      "parse COMP COMMANDS statement: name='comp1',type='application/pdf',"
      "src-file='c1.pdf'");
  size_t skipSet = text.find("don't do timestamping for component 'comp3'");
  ASSERT_NE(lastFile, std::string::npos) << text;
  ASSERT_NE(firstComp, std::string::npos) << text;
  EXPECT_LT(lastFile, firstComp);
  EXPECT_LT(skipSet, firstComp);
  EXPECT_NE(text.find("skip timestamping of component 'comp3', because of COMP_TIMESTAMP_FILE "
                      "statement"),
            std::string::npos);
  EXPECT_NE(text.find("cannot get file status of file '" + doc_ +
                      "/comp1_ts2.txt': 'No such file or directory'"),
            std::string::npos);
}

TEST_F(ServiceTest, FailuresAndWhatTheyLeave) {
  // "@" stands for the document directory.
  struct Case {
    const char* name;
    std::string commands;
    int result;
    std::string notice;  // the notification line; "" for none
    std::string logged;  // the level-2 message
  } cases[] = {
      {"one-token file statement is skipped",
       "TIMESTAMP_FILE lonely.pdf\nCOMP c text/plain data.txt\n", 1, "",
       "ignore wrong TIMESTAMP_FILE COMMANDS statement: 'lonely.pdf'"},
      {"two-token component fails the document",
       "TIMESTAMP_COMP\nCOMP good text/plain data.txt\nCOMP broken text/plain\n", 0,
       "SRV BASE 701 ERR: Kavlet 'clockette' failed because of wrong COMP COMMANDS statement in "
       "document '@'",
       "wrong COMP COMMANDS statement in document '@': 'broken text/plain'"},
      {"a missing source file: the path rule keeps a drive path as it is",
       "TIMESTAMP_FILE data.txt data.tst\nTIMESTAMP_FILE C:\\data\\a.pdf a.tst\n"
       "TIMESTAMP_COMP\nCOMP late text/plain data.txt\n",
       0,
       "SRV BASE 700 ERR: Kavlet 'clockette' failed in requesting timestamp for file "
       "'@/C:\\data\\a.pdf' from Timestamp Server",
       "the timestamp couldn't be requested from timestamp server. The call of function "
       "requestTimestamp(source_file='C:\\data\\a.pdf',timestamp_file='@/a.tst') failed."},
  };
  int n = 0;
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    doc_ = dir_.file("doc" + std::to_string(++n));
    makeDir(doc_);
    for (std::string* text : {&c.notice, &c.logged}) {
      for (size_t at; (at = text->find('@')) != std::string::npos;) text->replace(at, 1, doc_);
    }
    writeFile(doc_ + "/data.txt", "data");
    if (fileExists(notices_)) remove(notices_.c_str());
    LogCapture log;
    EXPECT_EQ(serve(c.commands), c.result);
    EXPECT_EQ(notices(), c.notice.empty() ? "" : c.notice + "\n");
    EXPECT_TRUE(log.contains(" 2 clockette::service: " + c.logged + "\n")) << log.text();
    if (c.result == 1) {
      EXPECT_NE(
          protocol().find("[clockette] no timestamping required for document '" + doc_ + "'\n"),
          std::string::npos)
          << protocol();
    } else {
      // Stamped before the failure and left there; nothing stamped after it.
      EXPECT_FALSE(fileExists(doc_ + "/late_ts0.txt"));
      EXPECT_EQ(readFile(doc_ + "/COMMANDS"), c.commands);
    }
  }
  EXPECT_EQ(verifyTimestampFile(dir_.file("doc3/data.tst"), dir_.file("doc3/data.txt"), *tsa_), "");
  EXPECT_TRUE(fileExists(dir_.file("doc2/good_ts0.txt")));
}

TEST_F(ServiceTest, ATimestampServerFaultFailsWithTheRequesterMessage) {
  TestTsaOptions options;
  options.dir = pki_->path();
  options.fault = "reject";
  TestTsa rejecting(testTsaProgram(), options);
  ASSERT_TRUE(rejecting.ready());
  useServer(rejecting);
  writeFile(doc_ + "/c.pdf", "component");
  LogCapture log;
  EXPECT_EQ(serve("TIMESTAMP_COMP\nCOMP c application/pdf c.pdf\n"), 0);
  useServer(*tsa_);
  EXPECT_EQ(notices(),
            "SRV BASE 700 ERR: Kavlet 'clockette' failed in requesting timestamp for file '" +
                doc_ + "/" + doc_ + "/c.pdf' from Timestamp Server\n");
  EXPECT_TRUE(log.contains("requestTimestamp(source_file='" + doc_ + "/c.pdf',timestamp_file='" +
                           doc_ + "/c_ts0.txt') failed."))
      << log.text();
  EXPECT_FALSE(fileExists(doc_ + "/c_ts0.txt"));
  EXPECT_EQ(readFile(doc_ + "/COMMANDS"), "TIMESTAMP_COMP\nCOMP c application/pdf c.pdf\n");
}

TEST_F(ServiceTest, ComponentsNeedTheSwitch) {
  writeFile(doc_ + "/c.pdf", "component");
  EXPECT_EQ(serve("COMP c application/pdf c.pdf\n"), 1);
  EXPECT_FALSE(fileExists(doc_ + "/c_ts0.txt"));
  EXPECT_NE(protocol().find("no timestamping required for document '" + doc_ + "'"),
            std::string::npos);
}

}  // namespace
