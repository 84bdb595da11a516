// RateLimit: keeps log lines that any datagram can cause from flooding the
// log. A limit lets a burst of lines through in each period and holds back
// the rest; the next line it lets through learns how many were held back, so
// that the log can say "... suppressed N times".
//
// Thread-safe. One object per kind of line, usually a function-local static.
#ifndef BASE_RATELIMIT_H_
#define BASE_RATELIMIT_H_

#include <chrono>
#include <mutex>

class RateLimit {
 public:
  // At most burst lines in each period of periodSeconds.
  RateLimit(int burst, int periodSeconds);
  RateLimit(const RateLimit&) = delete;
  RateLimit& operator=(const RateLimit&) = delete;

  // True when a line may be written now; *suppressed is then the number of
  // lines held back since the last one let through (0 when none).
  bool admit(int* suppressed);

 private:
  std::mutex mutex_;
  const int burst_;
  const std::chrono::steady_clock::duration period_;
  std::chrono::steady_clock::time_point periodStart_;
  int admitted_ = 0;
  int held_ = 0;
};

#endif  // BASE_RATELIMIT_H_
