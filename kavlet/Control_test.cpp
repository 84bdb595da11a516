// Kavlet::control's word walk and the handlers' paths that do not end the
// process, in this process. What ends the process is tested in
// Worker_test.cpp with a real worker.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Log.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Kv.h"
#include "testing/LogCapture.h"

namespace {

using testing_support::LogCapture;

// Takes "sleep <n>" as a control command of its own.
class SleepyKavlet : public Kavlet {
 public:
  int service(const char*) override { return 1; }
  int parseAdditionalKvctrlArguments(std::vector<String>& words, int* position) override {
    size_t at = static_cast<size_t>(*position);
    if (words[at] != "sleep" || at + 1 >= words.size()) return 0;
    sleepSeconds = atoi(words[at + 1].c_str());
    *position += 1;
    return 1;
  }
  int sleepSeconds = 0;
};

int count(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// Levels 5 to 13 as a string of 0/1, level 5 first.
std::string levels() {
  std::string s;
  for (int level = 5; level <= Log::kMaxLevel; ++level) s += Log::getLevel(level) ? '1' : '0';
  return s;
}

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int level = 5; level <= Log::kMaxLevel; ++level) Log::setLevel(level, 1);
  }
  void TearDown() override {
    exitInProgress = 0;
    Log::init();
    for (int level = 5; level <= Log::kMaxLevel; ++level) Log::unsetLevel(level);
  }
  SleepyKavlet kavlet_;
};

TEST_F(ControlTest, LoglevelSetsFiveUpToItsValueAndUnsetsTheRest) {
  LogCapture log;
  testing::internal::CaptureStderr();
  EXPECT_EQ(kavlet_.control(13, "loglevel 7 print"), 1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(levels(), "111000000");
  EXPECT_NE(err.find("Global settings for Kavlet"), std::string::npos);
  // Announced before switching: 10 to 13 are no longer heard.
  EXPECT_TRUE(log.contains("Setting loglevel '9'"));
  EXPECT_FALSE(log.contains("Setting loglevel '10'"));

  EXPECT_EQ(kavlet_.control(13, "loglevel 13"), 1);
  EXPECT_EQ(levels(), "111111111");
  EXPECT_EQ(kavlet_.control(13, "loglevel 0"), 1);
  EXPECT_EQ(levels(), "000000000");
}

TEST_F(ControlTest, SetLogLevelTakesOnlyTheFourSpellingsOfItsSwitch) {
  struct Case {
    const char* text;
    bool debugAfter;  // level 9, starting from off
  } cases[] = {
      {"setLogLevel DEBUG On", false},  {"setLogLevel DEBUG on", true},
      {"setLogLevel DEBUG ON", true},   {"setLogLevel debug on", true},
      {"setLogLevel DEBUG yes", false},
  };
  LogCapture quiet;
  for (const Case& c : cases) {
    Log::unsetLevel(9);
    EXPECT_EQ(kavlet_.control(13, c.text), 1);
    EXPECT_EQ(Log::getLevel(9), c.debugAfter ? 1 : 0) << c.text;
  }
  Log::setLevel(9, 1);
  EXPECT_EQ(kavlet_.control(13, "setLogLevel DEBUG OFF"), 1);
  EXPECT_EQ(Log::getLevel(9), 0);
  Log::setLevel(9, 1);
  EXPECT_EQ(kavlet_.control(13, "setLogLevel DEBUG off"), 1);
  EXPECT_EQ(Log::getLevel(9), 0);
}

TEST_F(ControlTest, WordsAreWalkedOneByOneAndUnknownOnesRefused) {
  struct Case {
    const char* text;
    int refusals;
    int kvTest;
    int sleep;
  } cases[] = {
      {"kvTestOn", 0, 1, 0},
      {"kvTestOn kvTestOff", 0, 0, 0},
      // Without both arguments setLogLevel is an unknown word, and so is DEBUG.
      {"setLogLevel DEBUG", 2, 0, 0},
      {"loglevel", 1, 0, 0},
      {"KVTESTON kvTestOn", 1, 1, 0},
      // The derived class's command consumes its argument.
      {"sleep 5 kvTestOn", 0, 1, 5},
      {"sleep", 1, 0, 0},
      {"", 0, 0, 0},
  };
  for (const Case& c : cases) {
    LogCapture log;
    kavlet_.kvTest = 0;
    kavlet_.sleepSeconds = 0;
    EXPECT_EQ(kavlet_.control(13, c.text), 1) << c.text;
    std::string refused = std::string("Cannot handle message '") + c.text + "' for the moment";
    EXPECT_EQ(count(log.text(), refused), c.refusals) << c.text;
    EXPECT_EQ(count(log.text(), "                       'setLogLevel <level> <on/off>',"),
              c.refusals);
    EXPECT_EQ(kavlet_.kvTest, c.kvTest) << c.text;
    EXPECT_EQ(kavlet_.sleepSeconds, c.sleep) << c.text;
  }
  LogCapture log;
  EXPECT_EQ(kavlet_.control(13, nullptr), 1);
  EXPECT_TRUE(log.contains("Got message '' with command 13"));
}

TEST_F(ControlTest, ASignalDuringTheKvsExitOrderOnlyLogs) {
  LogCapture log;
  exitInProgress = 1;
  sig_handler(2);
  EXPECT_TRUE(log.contains("Got signal 2, exiting ..."));
  EXPECT_TRUE(log.contains("exit already in progress, forced by KV -> no work"));
  EXPECT_EQ(theKavlet, &kavlet_);
}

TEST_F(ControlTest, TheLogoffEventIsIgnoredWithoutALogLine) {
  LogCapture log;
  EXPECT_EQ(sigwin_handler(kConsoleLogoffEvent), 1);
  EXPECT_EQ(log.text(), "");
}

}  // namespace
