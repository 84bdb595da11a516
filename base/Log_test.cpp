#include "base/Log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "testing/TempDir.h"
#include "testing/UnixDatagram.h"

namespace {

using namespace testing_support;

class LogTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Log::setLogFile("stderr");
    Log::setEventPrefix("");
    unsetenv("ZEPH_SRV_LOG");
    for (const char* v : {"LOG_WARNING", "LOG_INFO", "LOG_DEBUG", "LOG_RPC", "LOG_ENTRY"})
      unsetenv(v);
    Log::init();
  }
};

TEST_F(LogTest, PresetsLevelsZeroToFourAndVariablesOrNamesSwitchTheirLevel) {
  setenv("LOG_WARNING", "off", 1);
  setenv("LOG_DEBUG", "Yes", 1);
  setenv("LOG_RPC", "ja", 1);
  Log::init();
  const char preset[] = "11110000011000";  // levels 0 to 13
  for (int l = 0; l <= 13; ++l) EXPECT_EQ(Log::getLevel(l), preset[l] - '0') << l;
  // Levels by name, and all at once.
  EXPECT_EQ(Log::setLevel("INFO", 1), 1);
  EXPECT_EQ(Log::getLevel(8), 1);
  EXPECT_EQ(Log::setLevel("ENTRY", 1), 1);
  EXPECT_EQ(Log::getLevel(13), 1);
  EXPECT_EQ(Log::setLevel("NOSUCH", 1), 0);
  EXPECT_EQ(Log::setLevel("ALL", 0), 1);
  for (int l = 0; l <= 13; ++l) EXPECT_EQ(Log::getLevel(l), 0) << l;
  EXPECT_EQ(Log::setLevel(14, 1), 0);
  EXPECT_EQ(Log::getLevel(-1), 0);
}

TEST_F(LogTest, RelativeFileGoesUnderServerLogDirWithPrefixAndOnlyEnabledLevels) {
  TempDir dir;
  setenv("ZEPH_SRV_LOG", dir.path().c_str(), 1);
  ASSERT_EQ(Log::setLogFile("worker.log"), 1);
  EXPECT_EQ(std::string(Log::logFileName()), dir.file("worker.log"));
  Log::setEventPrefix("BANNER [program=/x/y] : ");
  Log::init();
  Log::unsetLevel(7);
  {
    Log log("Comp", "func", __FILE__, __LINE__, 13);
    log.msg(__LINE__, 2, "shown %d", 42);
    log.msgc("continued %s", "here");
    log.msg(__LINE__, 7, "hidden");
    log.msgc("hidden continuation");
  }
  Log::setLogFile("stderr");
  std::string text = readFile(dir.file("worker.log"));
  for (const char* part : {"BANNER [program=/x/y] : ", "Comp::func: shown 42", "continued here"})
    EXPECT_TRUE(contains(text, part)) << text;
  EXPECT_FALSE(contains(text, "hidden")) << text;
  EXPECT_FALSE(contains(text, "entry")) << "level 13 is off: " << text;
  // A file that cannot be opened keeps the old destination.
  EXPECT_EQ(Log::setLogFile("/nonexistent-dir/x.log"), 0);
  EXPECT_STREQ(Log::logFileName(), "stderr");
}

// Plays journald where none runs (this needs root); a running journal is
// left alone.
TEST_F(LogTest, JournalLinesCarryPriorityFromLevelAndNoBanner) {
  struct stat st;
  if (stat("/run/systemd/journal/socket", &st) == 0) GTEST_SKIP() << "a journal runs here";
  mkdir("/run/systemd", 0755);
  mkdir("/run/systemd/journal", 0755);
  UnixDatagram journal("/run/systemd/journal/socket");
  if (!journal.bound()) GTEST_SKIP() << "cannot play the journal here";
  ASSERT_EQ(Log::setLogFile("journal"), 1);
  EXPECT_STREQ(Log::logFileName(), "journal");
  Log::setEventPrefix("BANNER : ");
  Log::setLevel("ALL", 1);
  Log::unsetLevel(Log::kEntry);
  Log log("Comp", "func", __FILE__, __LINE__, 13);
  struct {
    int level;
    const char* priority;
  } cases[] = {{1, "2"}, {2, "3"}, {3, "4"}, {4, "4"}, {5, "5"}, {8, "6"}, {9, "7"}};
  for (const auto& c : cases) {
    log.msg(__LINE__, c.level, "level %d", c.level);
    std::string got = journal.receive();
    EXPECT_TRUE(contains(got, "MESSAGE=Comp::func: level " + std::to_string(c.level) + "\n"))
        << got;
    EXPECT_TRUE(contains(got, std::string("PRIORITY=") + c.priority + "\n")) << got;
    EXPECT_FALSE(contains(got, "BANNER")) << got;
  }
  log.msgc("more");  // a continuation keeps its message's priority
  EXPECT_TRUE(contains(journal.receive(), "PRIORITY=7\n"));
}

}  // namespace
