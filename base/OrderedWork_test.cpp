#include "base/OrderedWork.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

// Tasks that record the thread they ran on (none: never ran) and the most
// that ran at once; they wait while open is false.
struct Probe {
  std::vector<std::thread::id> ran;
  std::atomic<int> running{0}, most{0};
  std::atomic<bool> open{true};
  void run(size_t i) {
    int now = ++running, seen = most;
    while (now > seen && !most.compare_exchange_weak(seen, now)) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    while (!open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ran[i] = std::this_thread::get_id();
    --running;
  }
};

TEST(OrderedWork, EveryTaskRunsOnceWithAtMostThatManyAtATime) {
  Probe p{std::vector<std::thread::id>(20)};
  OrderedWork work(20, 4, [&](size_t i) { p.run(i); });
  for (size_t i = 0; i < 20; ++i) EXPECT_TRUE(work.waitFor(i) && p.ran[i] != std::thread::id());
  EXPECT_LE(p.most.load(), 4);
  EXPECT_FALSE(work.waitFor(20));
}

// Dropping keeps the tasks already running, and waiting for the rest does not
// hang; one thread runs a task on the caller's thread when its turn has come.
TEST(OrderedWork, DroppedTasksNeverStartAndOneThreadRunsEachInTurn) {
  for (int threads : {1, 2}) {
    SCOPED_TRACE(threads);
    Probe p{std::vector<std::thread::id>(10)};
    p.open = threads == 1;
    {
      OrderedWork work(10, threads, [&](size_t i) { p.run(i); });
      if (threads == 1) {
        EXPECT_TRUE(work.waitFor(0) && p.ran[0] == std::this_thread::get_id());
        EXPECT_EQ(p.ran[1], std::thread::id());
      } else {
        while (p.running < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      work.dropFrom(1);  // with two threads task 1 is running already: it stays
      p.open = true;
      EXPECT_TRUE(work.waitFor(0));
      EXPECT_EQ(work.waitFor(1), threads == 2);
      EXPECT_FALSE(work.waitFor(2));
    }
    for (size_t i = 2; i < 10; ++i) EXPECT_EQ(p.ran[i], std::thread::id()) << i;
  }
}

}  // namespace
