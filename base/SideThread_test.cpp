#include "base/SideThread.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace {

// Each job runs on another thread and is over when wait returns; a forked
// child (test mode forks its workers) gets a thread of its own.
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

TEST(SideThread, RunsEachJobAsideAlsoInAForkedChild) {
  EXPECT_TRUE(jobsRunAside(3));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(jobsRunAside(3) ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(jobsRunAside(1));
}

}  // namespace
