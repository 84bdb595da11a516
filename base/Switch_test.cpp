#include "base/Switch.h"

#include <gtest/gtest.h>

TEST(SwitchTest, TruthValueRule) {
  struct Case {
    const char* value;
    bool on;
  } cases[] = {{"on", true},   {"ON", true},    {"oN", true},  {"off", false}, {"OFF", false},
               {"yes", true},  {"JA", true},    {"True", true}, {"1", true},   {"0", false},
               {"no", false},  {"", false},     {" on", false}, {"2", false},  {nullptr, false}};
  for (const Case& c : cases) EXPECT_EQ(switchIsOn(c.value), c.on) << (c.value ? c.value : "null");
}
