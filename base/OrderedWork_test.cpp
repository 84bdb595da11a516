#include "base/OrderedWork.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

// Tasks that record whether they ran, on which thread, and how many ran at once.
struct Probe {
  explicit Probe(size_t n) : ran(n) {}
  void run(size_t i) {
    int now = ++running;
    for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
    }
    if (gate) {
      while (!open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ran[i] = std::this_thread::get_id();
    --running;
  }
  std::vector<std::thread::id> ran;  // default id: never ran
  std::atomic<int> running{0}, most{0};
  bool gate = false;
  std::atomic<bool> open{false};
};

TEST(OrderedWork, EveryTaskRunsOnceWithAtMostThatManyAtATime) {
  Probe p(20);
  OrderedWork work(20, 4, [&](size_t i) { p.run(i); });
  for (size_t i = 0; i < 20; ++i) {
    ASSERT_TRUE(work.waitFor(i)) << i;
    EXPECT_NE(p.ran[i], std::thread::id()) << i;
  }
  EXPECT_LE(p.most.load(), 4);
  EXPECT_FALSE(work.waitFor(20));
}

// With one thread nothing runs before its turn, and it runs on the caller's thread.
TEST(OrderedWork, OneThreadRunsEachTaskInTurnOnTheCaller) {
  Probe p(3);
  OrderedWork work(3, 1, [&](size_t i) { p.run(i); });
  EXPECT_EQ(p.ran[0], std::thread::id());
  ASSERT_TRUE(work.waitFor(0));
  EXPECT_EQ(p.ran[0], std::this_thread::get_id());
  EXPECT_EQ(p.ran[1], std::thread::id());
  work.dropFrom(1);
  EXPECT_FALSE(work.waitFor(2));
  EXPECT_EQ(p.ran[1], std::thread::id());
}

// Dropping keeps the tasks already running and their results; the rest never
// start, and waiting for them does not hang.
TEST(OrderedWork, DroppedTasksNeverStartButRunningOnesFinish) {
  Probe p(10);
  p.gate = true;
  {
    OrderedWork work(10, 2, [&](size_t i) { p.run(i); });
    while (p.running < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    work.dropFrom(1);  // task 1 is running already: it stays
    p.open = true;
    EXPECT_TRUE(work.waitFor(0));
    EXPECT_TRUE(work.waitFor(1));
    EXPECT_FALSE(work.waitFor(2));
    EXPECT_FALSE(work.waitFor(9));
  }
  for (size_t i = 2; i < 10; ++i) EXPECT_EQ(p.ran[i], std::thread::id()) << i;
}

}  // namespace
