// LogCapture: sends the log to a file of a temporary directory for the life
// of the object, with levels 0 to 12 on, so that tests can check messages.
#ifndef KAVLET_DOCFILES_TESTPROBE_LOGCAPTURE_H_
#define KAVLET_DOCFILES_TESTPROBE_LOGCAPTURE_H_

#include <string>

#include "base/Log.h"
#include "testing/TempDir.h"

namespace docfiles_test {

class LogCapture {
 public:
  LogCapture() : path_(dir_.file("log")) {
    Log::setLogFile(path_.c_str());
    for (int level = 0; level <= 12; ++level) Log::setLevel(level, 1);
  }
  ~LogCapture() {
    Log::setLogFile("stderr");
    Log::init();
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string text() const { return testing_support::readFile(path_); }
  bool contains(const std::string& s) const { return text().find(s) != std::string::npos; }
  size_t count(const std::string& s) const {
    std::string t = text();
    size_t n = 0;
    for (size_t p = t.find(s); p != std::string::npos; p = t.find(s, p + 1)) ++n;
    return n;
  }

 private:
  testing_support::TempDir dir_;
  std::string path_;
};

}  // namespace docfiles_test

#endif  // KAVLET_DOCFILES_TESTPROBE_LOGCAPTURE_H_
