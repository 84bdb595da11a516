// DiscardedLog: a log target writing to /dev/null, installed while it lives.
// Millions of inputs: their messages are formatted (with allLevels at every
// level but the function entries) but written nowhere.
#ifndef FUZZ_DISCARDEDLOG_H_
#define FUZZ_DISCARDEDLOG_H_

#include <cstdlib>

#include "base/Environment.h"
#include "base/LogTarget.h"

class DiscardedLog {
 public:
  explicit DiscardedLog(bool allLevels = false) : installed_(target_) {
    if (target_.setFile("/dev/null", Environment::process()) == 0) abort();
    for (int level = 0; allLevels && level < Log::kEntry; ++level) target_.setLevel(level, 1);
  }
  DiscardedLog(const DiscardedLog&) = delete;
  DiscardedLog& operator=(const DiscardedLog&) = delete;

 private:
  LogTarget target_;
  LogTarget::Installation installed_;
};

#endif  // FUZZ_DISCARDEDLOG_H_
