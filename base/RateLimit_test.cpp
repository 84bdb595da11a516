#include "base/RateLimit.h"

#include <gtest/gtest.h>

#include <thread>

TEST(RateLimit, LetsABurstThroughPerPeriodAndCountsWhatItHeldBack) {
  RateLimit limit(2, 1);
  int suppressed = -1;
  EXPECT_TRUE(limit.admit(&suppressed));
  EXPECT_EQ(suppressed, 0);
  EXPECT_TRUE(limit.admit(&suppressed));
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(limit.admit(&suppressed));

  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_TRUE(limit.admit(&suppressed));
  EXPECT_EQ(suppressed, 5);
  EXPECT_TRUE(limit.admit(&suppressed));
  EXPECT_EQ(suppressed, 0);  // counted once only
  EXPECT_FALSE(limit.admit(&suppressed));
}
