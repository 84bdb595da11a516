#include "base/Stop.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <thread>

// The request is process-wide and final, so one test walks through its life.
TEST(Stop, WaitsUntilTheRequestThenWakesEveryWaiterAtOnce) {
  ASSERT_FALSE(stopRequested());
  pollfd p{stopWakeFd(), POLLIN, 0};
  ASSERT_GE(p.fd, 0);
  EXPECT_EQ(0, poll(&p, 1, 0));

  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(waitForStop(30));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));

  std::thread raiser([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    requestStop();
  });
  start = std::chrono::steady_clock::now();
  EXPECT_TRUE(waitForStop(10000));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  raiser.join();

  requestStop();
  EXPECT_TRUE(stopRequested());
  EXPECT_TRUE(waitForStop(0));
  EXPECT_EQ(1, poll(&p, 1, 0));
  EXPECT_EQ(1, poll(&p, 1, 0));  // stays readable for the next waiter
}
