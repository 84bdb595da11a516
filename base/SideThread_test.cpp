#include "base/SideThread.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

// Each job runs on another thread and is over when wait returns.
bool jobsRunAside(int count) {
  SideThread& side = SideThread::instance();
  for (int i = 0; i < count; ++i) {
    bool ran = false;
    std::thread::id where;
    if (!side.start([&] {
          where = std::this_thread::get_id();
          ran = true;
        })) {
      return false;
    }
    side.wait();
    if (!ran || where == std::this_thread::get_id()) return false;
  }
  return true;
}

TEST(SideThread, RunsEachJobAside) { EXPECT_TRUE(jobsRunAside(3)); }

}  // namespace
