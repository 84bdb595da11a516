// LogCapture: sends the log to a file in a temporary directory while it
// lives, so a test can check the messages written; back to standard error
// afterwards. By default the levels switched on by the test stay as they
// were; kAllLevels switches levels 0 to 12 on and resets the levels to their
// start-up values at the end.
#ifndef TESTING_LOGCAPTURE_H_
#define TESTING_LOGCAPTURE_H_

#include <cstddef>
#include <string>

#include "base/Log.h"
#include "testing/TempDir.h"

namespace testing_support {

class LogCapture {
 public:
  enum Levels { kLevelsAsSet, kAllLevels };

  explicit LogCapture(Levels levels = kLevelsAsSet) : allLevels_(levels == kAllLevels) {
    Log::setLogFile(dir_.file("log").c_str());
    for (int level = 0; allLevels_ && level <= 12; ++level) Log::setLevel(level, 1);
  }
  ~LogCapture() {
    Log::setLogFile("stderr");
    if (allLevels_) Log::init();
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Everything logged so far.
  std::string text() const {
    Log::flush();
    return readIfThere(dir_.file("log"));
  }
  bool contains(const std::string& part) const { return testing_support::contains(text(), part); }
  size_t count(const std::string& part) const {
    return static_cast<size_t>(testing_support::count(text(), part));
  }

 private:
  TempDir dir_;
  bool allLevels_;
};

}  // namespace testing_support

#endif  // TESTING_LOGCAPTURE_H_
