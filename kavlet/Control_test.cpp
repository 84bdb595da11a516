// Kavlet::control's word walk and what the handlers decide, in this process.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "base/Log.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Kv.h"
#include "testing/LogCapture.h"
#include "testing/MapEnvironment.h"

namespace {

using namespace testing_support;

// Takes "sleep <n>" as a control command of its own.
struct SleepyKavlet : Kavlet {
  explicit SleepyKavlet(Environment& env) : Kavlet(env) {}
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

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int level = 5; level <= Log::kMaxLevel; ++level) kavlet_.logTarget().setLevel(level, 1);
  }
  // The worker's levels 5 to 13 as a string of 0/1, level 5 first.
  std::string levels() const {
    std::string s;
    for (int level = 5; level <= Log::kMaxLevel; ++level)
      s += kavlet_.logTarget().getLevel(level) ? '1' : '0';
    return s;
  }
  MapEnvironment env_;
  SleepyKavlet kavlet_{env_};
  int reply_ = 0;
};

TEST_F(ControlTest, LoglevelSetsFiveUpToItsValueAndUnsetsTheRest) {
  LogCapture log(kavlet_.logTarget());
  testing::internal::CaptureStderr();
  EXPECT_EQ(kavlet_.control(13, "loglevel 7 print"), 1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(levels(), "111000000");
  EXPECT_TRUE(contains(err, "Global settings for Kavlet"));
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
    int debugBefore, debugAfter;  // level 9
  } cases[] = {
      {"setLogLevel DEBUG On", 0, 0},  {"setLogLevel DEBUG on", 0, 1},
      {"setLogLevel DEBUG ON", 0, 1},  {"setLogLevel debug on", 0, 1},
      {"setLogLevel DEBUG yes", 0, 0}, {"setLogLevel DEBUG OFF", 1, 0},
      {"setLogLevel DEBUG off", 1, 0}, {"setLogLevel DEBUG Off", 1, 1},
  };
  LogCapture quiet(kavlet_.logTarget());
  for (const Case& c : cases) {
    kavlet_.logTarget().setLevel(Log::kDebug, c.debugBefore);
    EXPECT_EQ(kavlet_.control(13, c.text), 1);
    EXPECT_EQ(kavlet_.logTarget().getLevel(Log::kDebug), c.debugAfter) << c.text;
  }
}

TEST_F(ControlTest, WordsAreWalkedOneByOneAndUnknownOnesRefused) {
  struct Case {
    const char* text;
    size_t refusals;
    int kvTest, sleep;
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
    EXPECT_EQ(log.count(refused), c.refusals) << c.text;
    EXPECT_EQ(log.count("                       'setLogLevel <level> <on/off>',"), c.refusals);
    EXPECT_EQ(kavlet_.kvTest, c.kvTest) << c.text;
    EXPECT_EQ(kavlet_.sleepSeconds, c.sleep) << c.text;
  }
  LogCapture log;
  EXPECT_EQ(kavlet_.control(13, nullptr), 1);
  EXPECT_TRUE(log.contains("Got message '' with command 13"));
}

TEST_F(ControlTest, ExitOrderSignalsAndConsoleEventsDecideWhatHappensNext) {
  struct Case {
    const char* what;
    std::function<ToolNext()> handle;
    ToolNext next;
    int reply;           // -1: none
    const char* logged;  // "" for no log line at all
  } cases[] = {
      {"control", [this] { return kavlet_.onControlMessage(13, "kvTestOn", &reply_); },
       ToolNext::kGoOn, 1, "turn kvTest on"},
      {"logoff", [this] { return kavlet_.workerEnd().onConsoleEvent(kConsoleLogoffEvent); }, ToolNext::kGoOn, -1, ""},
      {"exit order", [this] { return kavlet_.onControlMessage(0, nullptr, &reply_); },
       ToolNext::kExitOk, -1, "That's it for me, I'm exiting "},
      // From here on the KV's exit order is in progress.
      {"signal", [this] { return kavlet_.workerEnd().onStopSignal(2); }, ToolNext::kGoOn, -1,
       "exit already in progress, forced by KV -> no work"},
      {"close", [this] { return kavlet_.workerEnd().onConsoleEvent(kConsoleCloseEvent); }, ToolNext::kGoOn, -1,
       "exit already in progress, forced by KV -> no work"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    reply_ = -1;
    EXPECT_EQ(c.handle(), c.next) << c.what;
    EXPECT_EQ(reply_, c.reply) << c.what;
    if (*c.logged == '\0') {
      EXPECT_EQ(log.text(), "") << c.what;
    } else {
      EXPECT_TRUE(log.contains(c.logged)) << c.what << ": " << log.text();
    }
  }
  EXPECT_TRUE(kavlet_.workerEnd().exitInProgress());
}

}  // namespace
