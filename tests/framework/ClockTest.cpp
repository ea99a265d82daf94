#include <gtest/gtest.h>

#include "framework/Clock.h"

namespace {

using namespace drovane::Clock;

TEST(ClockTest, NeverGoesBack) {
  auto before = now();
  for (int i = 0; i < 1000; ++i) {
    const auto after = now();
    ASSERT_GE(after, before);
    before = after;
  }
}

TEST(ClockTest, SkippingMovesItForward) {
  const auto before = now();
  skip(30 * kNanosecondsPerSecond);
  EXPECT_GE(now(), before + 30 * kNanosecondsPerSecond);
  EXPECT_LT(now(), before + 60 * kNanosecondsPerSecond);
}

TEST(ClockTest, TheCoarseClockFollowsTheFineOne) {
  const auto coarse_time = coarse();
  EXPECT_LE(coarse_time, now());
  EXPECT_GT(coarse_time, now() - kNanosecondsPerSecond);
  skip(kNanosecondsPerSecond);
  EXPECT_GE(coarse(), coarse_time + kNanosecondsPerSecond);
}

}  // namespace
