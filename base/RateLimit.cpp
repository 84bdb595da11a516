#include "base/RateLimit.h"

RateLimit::RateLimit(int burst, int periodSeconds)
    : burst_(burst), period_(std::chrono::seconds(periodSeconds)) {}

bool RateLimit::admit(int* suppressed) {
  std::lock_guard<std::mutex> hold(mutex_);
  auto now = std::chrono::steady_clock::now();
  if (admitted_ == 0 || now - periodStart_ >= period_) {
    periodStart_ = now;
    admitted_ = 0;
  }
  if (admitted_ >= burst_) {
    ++held_;
    *suppressed = 0;
    return false;
  }
  ++admitted_;
  *suppressed = held_;
  held_ = 0;
  return true;
}
