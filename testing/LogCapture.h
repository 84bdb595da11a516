// LogCapture: a log target writing to a file in a temporary directory,
// installed while the capture lives, so a test can check the messages
// written. By default it has the levels of the target installed before it;
// kAllLevels switches levels 0 to 12 on. target() switches levels for the
// capture alone.
//
// A capture of a given target (a worker's) points that target at the file
// instead, with the target's own levels, and back to standard error at the
// end.
#ifndef TESTING_LOGCAPTURE_H_
#define TESTING_LOGCAPTURE_H_

#include <cstddef>
#include <optional>
#include <string>

#include "base/LogTarget.h"
#include "testing/MapEnvironment.h"
#include "testing/TempDir.h"

namespace testing_support {

class LogCapture {
 public:
  enum Levels { kLevelsAsSet, kAllLevels };

  explicit LogCapture(Levels levels = kLevelsAsSet) : own_(&LogTarget::current()), target_(own_) {
    own_.setFile(file().c_str(), MapEnvironment());
    for (int level = 0; levels == kAllLevels && level <= 12; ++level) own_.setLevel(level, 1);
    installed_.emplace(own_);
  }
  explicit LogCapture(LogTarget& target) : target_(target) {
    target_.setFile(file().c_str(), MapEnvironment());
  }
  ~LogCapture() {
    if (!installed_) target_.setFile("stderr", MapEnvironment());
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  LogTarget& target() { return target_; }
  // Everything logged so far.
  std::string text() const {
    target_.flush();
    return readIfThere(file());
  }
  bool contains(const std::string& part) const { return testing_support::contains(text(), part); }
  size_t count(const std::string& part) const {
    return static_cast<size_t>(testing_support::count(text(), part));
  }

 private:
  std::string file() const { return dir_.file("log"); }

  TempDir dir_;
  LogTarget own_;
  LogTarget& target_;
  std::optional<LogTarget::Installation> installed_;  // of own_
};

}  // namespace testing_support

#endif  // TESTING_LOGCAPTURE_H_
