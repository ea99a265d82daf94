#include <gtest/gtest.h>

#include <climits>

#include "Timer.h"
#include "framework/Clock.h"

namespace {

using drovane::Clock::kNanosecondsPerSecond;
using drovane::Clock::now;

// Arms a timer and says how many nanoseconds later than the call's beginning it expires, less the
// call's own duration at most.
bool expiresAfter(const TimeValue& delay, std::int64_t nanoseconds) {
  Timer timer;
  const auto before = now();
  timer.set(delay, false);
  const auto after = now();
  const auto expiry = timer.expiry();
  return expiry && *expiry >= before + nanoseconds && *expiry <= after + nanoseconds;
}

TEST(TimerTest, ANewTimerIsNotArmed) { EXPECT_FALSE(Timer().expiry().has_value()); }

TEST(TimerTest, ExpiresAfterItsDelay) {
  EXPECT_TRUE(expiresAfter({2, 500000}, 2'500'000'000));
  EXPECT_TRUE(expiresAfter({0, 1}, 1000));
  EXPECT_TRUE(expiresAfter({0, 30000000}, 30 * kNanosecondsPerSecond));
}

TEST(TimerTest, ZeroAndNegativeDelaysExpireAtOnce) {
  EXPECT_TRUE(expiresAfter({0, 0}, 0));
  EXPECT_TRUE(expiresAfter({0, -1}, 0));
  EXPECT_TRUE(expiresAfter({-5, 0}, 0));
  EXPECT_TRUE(expiresAfter({INT_MIN, INT_MIN}, 0));
}

TEST(TimerTest, TheLongestDelaysStayInTheFuture) {
  Timer timer;
  TimeValue delay(INT_MAX, INT_MAX);
  timer.set(delay, false);
  EXPECT_GT(timer.expiry().value(), now() + std::int64_t{INT_MAX} * kNanosecondsPerSecond / 2);
  delay.tv_sec = static_cast<time_t>(sizeof(time_t) < 8 ? INT_MAX : LONG_MAX);
  timer.set(delay, false);
  EXPECT_GT(timer.expiry().value(), now());
}

TEST(TimerTest, TheLongestNegativeDelayExpiresAtOnce) {
  Timer timer;
  TimeValue delay(0, 0);
  delay.tv_sec = static_cast<time_t>(sizeof(time_t) < 8 ? INT_MIN : LONG_MIN);
  timer.set(delay, false);
  EXPECT_LE(timer.expiry().value(), now());
}

TEST(TimerTest, SettingReplacesAnEarlierExpiry) {
  Timer timer;
  timer.set({30, 0}, false);
  timer.set({0, 0}, false);
  EXPECT_LE(timer.expiry().value(), now());
}

TEST(TimerTest, TheFlagKeepsAnExpiryThatIsArmed) {
  Timer timer;
  timer.set({0, 0}, true);
  const auto first = timer.expiry();
  ASSERT_TRUE(first.has_value());
  timer.set({30, 0}, true);
  EXPECT_EQ(timer.expiry(), first);
}

TEST(TimerTest, ClearDisarms) {
  Timer timer;
  timer.set({30, 0}, false);
  timer.clear();
  EXPECT_FALSE(timer.expiry().has_value());
}

}  // namespace
