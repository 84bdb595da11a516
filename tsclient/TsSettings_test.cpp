// Numbers the requester takes from the environment: what is out of range or
// no number falls back to the default with a message.
#include "tsclient/TsSettings.h"

#include <gtest/gtest.h>

#include <string>

#include "base/Log.h"
#include "testing/LogCapture.h"
#include "testing/MapEnvironment.h"

namespace {

TEST(TsSettingsTest, NumbersOutOfRangeFallBackToTheDefaults) {
  // Time-outs whose milliseconds overflow an int would leave libcurl with no
  // time-out at all and make poll wait for ever.
  const struct {
    const char* name;
    const char* value;
    long long effective;
    bool refused;
  } cases[] = {
      {"TS_TIMEOUT", "7", 7, false},
      {"TS_TIMEOUT", "2147483", 2147483, false},
      {"TS_TIMEOUT", "2147484", 60, true},
      {"TS_TIMEOUT", "99999999999999999999", 60, true},
      {"TS_TIMEOUT", "0", 60, true},
      {"TS_TIMEOUT", "-5", 60, true},
      {"TS_TIMEOUT", "12s", 60, true},
      {"TS_TIMEOUT", "", 60, false},
      {"TS_RESPONSE_LIMIT", "1024", 1024, false},
      {"TS_RESPONSE_LIMIT", "1048576", 1048576, false},
      {"TS_RESPONSE_LIMIT", "1023", 4096, true},
      {"TS_RESPONSE_LIMIT", "1048577", 4096, true},
  };
  Log log("TsSettingsTest", "numbers", __FILE__, __LINE__, 13);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + "=" + c.value);
    const MapEnvironment env{{c.name, c.value}};
    testing_support::LogCapture capture;
    const bool limit = std::string(c.name) == "TS_RESPONSE_LIMIT";
    const long long effective = limit ? static_cast<long long>(responseLimitFromEnv(log, env))
                                      : timeoutFromEnv(log, env, c.name, 60);
    EXPECT_EQ(effective, c.effective);
    EXPECT_EQ(capture.contains(std::string(c.name) + " '" + c.value + "' is no number of " +
                               (limit ? "bytes from 1024 to 1048576, using 4096"
                                      : "seconds from 1 to 2147483, using 60")),
              c.refused)
        << capture.text();
  }
}

}  // namespace
