#include "base/LogTarget.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "testing/MapEnvironment.h"
#include "testing/TempDir.h"
#include "testing/UnixDatagram.h"

namespace {

using namespace testing_support;

// Levels 0 to 13 as a string of 0/1.
std::string levels(const LogTarget& target) {
  std::string s;
  for (int level = 0; level <= Log::kMaxLevel; ++level) s += target.getLevel(level) ? '1' : '0';
  return s;
}

TEST(LogTarget, LevelsStartPresetAndSwitchByVariableNumberOrName) {
  LogTarget target;
  EXPECT_EQ(levels(target), "11111000000000");
  target.setLevel(Log::kMaxLevel, 1);
  target.setEventPrefix("P ");
  LogTarget like(&target);
  EXPECT_EQ(levels(like), "11111000000001");
  EXPECT_EQ(like.fileName(), "stderr");

  MapEnvironment env{{"LOG_WARNING", "off"}, {"LOG_DEBUG", "Yes"}, {"LOG_RPC", "ja"}};
  EXPECT_EQ(target.init(env), 1);
  EXPECT_EQ(levels(target), "11110000011000");
  // A parameter package read later switches only what it names.
  EXPECT_EQ(target.applyVariables(MapEnvironment{{"LOG_RPC", "off"}, {"LOG_ENTRY", "on"}}), 1);
  EXPECT_EQ(levels(target), "11110000010001");

  EXPECT_EQ(target.setLevel("info", 1), 1);
  EXPECT_EQ(target.getLevel(Log::kInfo), 1);
  EXPECT_EQ(target.setLevel("NOSUCH", 1), 0);
  EXPECT_EQ(target.setLevel("ALL", 0), 1);
  EXPECT_EQ(levels(target), "00000000000000");
  EXPECT_EQ(target.setLevel(14, 1), 0);
  EXPECT_EQ(target.getLevel(-1), 0);
}

TEST(LogTarget, RelativeFileGoesUnderServerLogDirAndLinesCarryThePrefix) {
  TempDir dir;
  LogTarget target;
  MapEnvironment env{{"ZEPH_SRV_LOG", dir.path() + "/"}};
  ASSERT_EQ(target.setFile("worker.log", env), 1);
  EXPECT_EQ(target.fileName(), dir.file("worker.log"));
  target.setEventPrefix("BANNER [program=/x/y] : ");
  target.write(2, "Comp", "func", "shown 42", false);
  target.write(2, "Comp", "func", "continued", true);
  // A file that cannot be opened keeps the old destination.
  EXPECT_EQ(target.setFile("/nonexistent-dir/x.log", env), 0);
  EXPECT_EQ(target.fileName(), dir.file("worker.log"));
  ASSERT_EQ(target.setFile("-", env), 1);
  EXPECT_EQ(target.fileName(), "stderr");
  std::string text = readFile(dir.file("worker.log"));
  std::string pid = " " + std::to_string(getpid()) + " ";
  EXPECT_TRUE(contains(text, pid + " 2 Comp::func: shown 42\n")) << text;
  EXPECT_TRUE(contains(text, pid + " 0 Comp::func:     continued\n")) << text;
  EXPECT_EQ(count(text, "BANNER [program=/x/y] : 2"), 2) << text;
}

// Standard error is the journal only when JOURNAL_STREAM names that very
// stream; "journal" asks for it outright.
TEST(LogTarget, JournalIsChosenByNameOrByTheJournalStream) {
  struct stat st;
  ASSERT_EQ(fstat(STDERR_FILENO, &st), 0);
  std::string self = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  std::string other = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + 1);
  struct Case {
    const char* name;
    std::string stream;  // empty: not set
    const char* chosen;
  } cases[] = {{"stderr", self, "journal"},
               {"", self, "journal"},
               {"-", other, "stderr"},
               {"stderr", "", "stderr"},
               {"journal", "", "journal"}};
  for (const Case& c : cases) {
    MapEnvironment env;
    if (!c.stream.empty()) env.set("JOURNAL_STREAM", c.stream.c_str());
    LogTarget target;
    ASSERT_EQ(target.setFile(c.name, env), 1);
    EXPECT_EQ(target.fileName(), c.chosen) << c.name << " " << c.stream;
  }
}

// Plays journald where none runs (this needs root); a running journal is
// left alone.
TEST(LogTarget, JournalLinesCarryPriorityFromLevelAndNoPrefix) {
  struct stat st;
  if (stat("/run/systemd/journal/socket", &st) == 0) GTEST_SKIP() << "a journal runs here";
  mkdir("/run/systemd", 0755);
  mkdir("/run/systemd/journal", 0755);
  UnixDatagram journal("/run/systemd/journal/socket");
  if (!journal.bound()) GTEST_SKIP() << "cannot play the journal here";
  LogTarget target;
  ASSERT_EQ(target.setFile("journal", MapEnvironment()), 1);
  target.setEventPrefix("BANNER : ");
  target.setLevel("ALL", 1);
  target.setLevel(Log::kEntry, 0);
  LogTarget::Installation installed(target);
  Log log("Comp", "func", __FILE__, __LINE__, Log::kEntry);
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
