// LogCapture: sends the log to a file in a temporary directory while it
// lives, so a test can check the messages written; back to standard error
// afterwards. Levels switched on by the test stay as they were.
#ifndef TESTING_LOGCAPTURE_H_
#define TESTING_LOGCAPTURE_H_

#include <string>

#include "base/Log.h"
#include "testing/TempDir.h"

namespace testing_support {

class LogCapture {
 public:
  LogCapture() { Log::setLogFile(dir_.file("log").c_str()); }
  ~LogCapture() { Log::setLogFile("stderr"); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Everything logged so far.
  std::string text() const {
    Log::flush();
    return fileExists(dir_.file("log")) ? readFile(dir_.file("log")) : std::string();
  }
  bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }

 private:
  TempDir dir_;
};

}  // namespace testing_support

#endif  // TESTING_LOGCAPTURE_H_
