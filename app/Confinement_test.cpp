#include "app/Confinement.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "testing/TempDir.h"

namespace {

using namespace testing_support;

// Document a and b under the root docs; out is no root.
class ConfinementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"docs", "docs/a", "docs/b", "docs/setup", "out"}) makeDir(t_.file(d));
    for (const char* f :
         {"docs/a/data", "docs/b/COMMANDS", "docs/shared", "docs/worker.log", "out/secret"}) {
      writeFile(t_.file(f), "x");
    }
    ASSERT_EQ(symlink("data", a("inner-link").c_str()), 0);
    ASSERT_EQ(symlink("../shared", a("up-link").c_str()), 0);
    ASSERT_EQ(symlink("../../out/secret", a("out-link").c_str()), 0);
    ASSERT_EQ(symlink(t_.file("docs/shared").c_str(), a("absolute-link").c_str()), 0);
    ASSERT_EQ(symlink("../../out", a("out-dir").c_str()), 0);
    ASSERT_EQ(link(t_.file("docs/worker.log").c_str(), a("hard-log").c_str()), 0);
  }
  std::string a(const std::string& name) const { return t_.file("docs/a/" + name); }
  Confinement confinement() const {
    return Confinement(t_.file("docs/a"),
                       {{t_.file("docs")}, {t_.file("docs/worker.log")}, {t_.file("docs/setup")}});
  }

  TempDir t_;
};

TEST_F(ConfinementTest, SourcesAreReadOnlyInsideTheRootsAndNeverTheReservedFiles) {
  const std::string outside = "it lies outside the directories open to the document";
  struct Case {
    std::string path;
    std::string refusal;  // the start of it
    int error;
  } cases[] = {
      {a("data"), "", 0},
      {a("inner-link"), "", 0},
      {a("up-link"), "", 0},  // out of the document, into another root
      // Above every root on the way, even if back inside at the end.
      {a("../../docs/a/data"), outside, 0},
      {a("out-link"), outside, 0},
      {a("absolute-link"), outside, 0},
      {a("../../out/secret"), outside, 0},
      {a("../b/COMMANDS"), "it is another document's file", 0},
      {a("hard-log"), "it is the worker's file", 0},
      {a("missing"), "", ENOENT},
      {t_.file("out/missing"), "", ENOENT},
  };
  Confinement c = confinement();
  for (const Case& k : cases) {
    SCOPED_TRACE(k.path);
    std::string refusal;
    int error = -1;
    UniqueFd fd = c.openSource(k.path, &refusal, &error);
    EXPECT_EQ(refusal.substr(0, k.refusal.size()), k.refusal);
    EXPECT_EQ(refusal.empty(), k.refusal.empty());
    EXPECT_EQ(fd.valid(), k.refusal.empty() && k.error == 0);
    if (k.refusal.empty()) {
      EXPECT_EQ(error, k.error);
    }
  }
}

TEST_F(ConfinementTest, TargetsAreWrittenOnlyInsideTheRootsAndNeverOverReservedFiles) {
  Confinement c = confinement();
  EXPECT_EQ(c.targetRefusal(a("new.tst")), "");
  EXPECT_EQ(c.targetRefusal(a("../b/new.tst")), "");
  EXPECT_EQ(c.targetRefusal(a("no-dir/new.tst")), "");  // the write says why not
  EXPECT_EQ(c.targetRefusal(a("../b/KVprotocol")),
            "it is another document's file '" + t_.file("docs/b/KVprotocol") + "'");
  EXPECT_EQ(c.targetRefusal(a("../worker.log")),
            "it is the worker's file '" + t_.file("docs/worker.log") + "'");
  EXPECT_EQ(c.targetRefusal(a("../setup/COMMON.Setup")),
            "it is the worker's file '" + t_.file("docs/setup/COMMON.Setup") + "'");
  for (const char* escape : {"../../out/x.tst", "out-dir/x.tst"}) {
    EXPECT_EQ(c.targetRefusal(a(escape)), "it lies outside the directories open to the document");
  }
}

}  // namespace
