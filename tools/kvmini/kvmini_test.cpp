// kvmini driving a whole worker session: registration, a queue handed out
// document by document as the results come back, a final control message and
// the goodbye. The worker side is kvprobe on our own runtime.
#include <gtest/gtest.h>

#include <string>

#include "testing/KvPeers.h"
#include "testing/TempDir.h"

namespace {

using testing_support::ChildOptions;
using testing_support::ChildResult;
using testing_support::KvMini;
using testing_support::kvminiPath;
using testing_support::kvprobePath;
using testing_support::LinePeer;
using testing_support::makeDir;
using testing_support::runChild;
using testing_support::TempDir;

TEST(KvminiTest, HandsOutAQueueDocumentByDocumentThenEndsTheSession) {
  TempDir queue;
  makeDir(queue.file("0002"));
  makeDir(queue.file("0001"));
  testing_support::writeFile(queue.file("not-a-document"), "x");
  KvMini kv({"--queue", queue.path(), "--mode", "1", "--final-ctrl", "5", "--final-text", "done",
             "--exit-on-bye"});
  ChildOptions env;
  env.env = {{"MY_HOST_NAME", "localhost"}, {"KLCTO", "5/1"}};
  LinePeer worker({kvprobePath(), "-opwork", "setport", kv.portText(), "hi", "localhost", "tool",
                   "serve", "bye"},
                  env);

  const char* expected[] = {
      "HI ",
      "SEND WORK 1 \"" /* first document */,
      "OP ",
      "SEND WORK 1 \"",
      "OP ",
      "QUEUE done",
      "SEND CTRL 5 \"done\"",
      "BYE ",
  };
  std::string line;
  std::string docs;
  for (const char* prefix : expected) {
    ASSERT_TRUE(kv.waitFor(prefix, &line, 10)) << prefix;
    EXPECT_EQ(line.rfind(prefix, 0), 0u) << line;
    if (line.rfind("SEND WORK", 0) == 0) {
      EXPECT_NE(line.find("-> 1"), std::string::npos) << line;
      docs += line.substr(line.rfind('/') + 1, 4) + " ";
    }
    if (line.rfind("OP ", 0) == 0) {
      EXPECT_NE(line.find("text2=\"ok\" text3=\"\" -> 0"), std::string::npos);
    }
    if (line.rfind("SEND CTRL", 0) == 0) {
      EXPECT_NE(line.find("-> 105"), std::string::npos);
    }
  }
  EXPECT_EQ(docs, "0001 0002 ");
  EXPECT_EQ(kv.child().wait(10), 0);
  EXPECT_EQ(worker.child().wait(10), 0);
  worker.drain(1);
  EXPECT_EQ(worker.countLines("WORK 1 "), 2);
  EXPECT_EQ(worker.countLines("op 0"), 2);
}

TEST(KvminiTest, ReadsCommandsOnStandardInput) {
  ChildOptions o;
  o.stdinText = "op-answer 3\nrefuse on\nwork 1 /docs/a\nbogus\nquit\n";
  o.timeoutSeconds = 10;
  ChildResult r = runChild({kvminiPath(), "serve", "--port", "0"}, o);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("\nOK op-answer\nOK refuse\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("SEND WORK no worker registered"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("kvmini: unknown command: bogus"), std::string::npos) << r.out;
}

}  // namespace
