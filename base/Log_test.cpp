#include "base/Log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "testing/TempDir.h"

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
  EXPECT_TRUE(contains(text, "BANNER [program=/x/y] : ")) << text;
  EXPECT_TRUE(contains(text, "Comp::func: shown 42")) << text;
  EXPECT_TRUE(contains(text, "continued here")) << text;
  EXPECT_FALSE(contains(text, "hidden")) << text;
  EXPECT_FALSE(contains(text, "entry")) << "level 13 is off: " << text;
  // A file that cannot be opened keeps the old destination.
  EXPECT_EQ(Log::setLogFile("/nonexistent-dir/x.log"), 0);
  EXPECT_STREQ(Log::logFileName(), "stderr");
}

}  // namespace
