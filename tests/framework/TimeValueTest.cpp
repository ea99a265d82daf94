#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <type_traits>

#include "TimeValue.h"

namespace {

// Local time is UTC meanwhile.
class InUtc {
 public:
  InUtc() {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ~InUtc() {
    unsetenv("TZ");
    tzset();
  }
  InUtc(const InUtc&) = delete;
  InUtc& operator=(const InUtc&) = delete;
};

TEST(TimeValueTest, StoresBothNumbersAsTheyAre) {
  const TimeValue value(-3, 2000000);
  EXPECT_EQ(value.tv_sec, -3);
  EXPECT_EQ(value.tv_usec, 2000000);
}

TEST(TimeValueTest, IsTheSystemsTimeval) {
  static_assert(std::is_base_of_v<timeval, TimeValue>);
  static_assert(sizeof(TimeValue::tbuf) == 26);
  TimeValue value(1, 2);
  EXPECT_EQ(static_cast<void*>(static_cast<timeval*>(&value)), static_cast<void*>(&value));
}

TEST(TimeValueTest, HasNoTextUntilItIsAskedFor) { EXPECT_STREQ(TimeValue(1, 2).tbuf, ""); }

TEST(TimeValueTest, GreaterIsDecidedBySecondsAndThenByMicroseconds) {
  EXPECT_FALSE(TimeValue(5, 0) > TimeValue(5, 0));
  EXPECT_TRUE(TimeValue(5, 1) > TimeValue(5, 0));
  EXPECT_FALSE(TimeValue(5, 0) > TimeValue(5, 1));
  EXPECT_FALSE(TimeValue(4, 999999) > TimeValue(5, 0));
  EXPECT_TRUE(TimeValue(6, 0) > TimeValue(5, 999999));
  EXPECT_FALSE(TimeValue(-1, 0) > TimeValue(0, 0));
  EXPECT_TRUE(TimeValue(0, 0) > TimeValue(0, -1));
}

TEST(TimeValueTest, SumsCarryIntoTheSeconds) {
  TimeValue value(1, 600000);
  value += TimeValue(2, 500000);
  EXPECT_EQ(value.tv_sec, 4);
  EXPECT_EQ(value.tv_usec, 100000);
}

TEST(TimeValueTest, DifferencesBorrowFromTheSeconds) {
  TimeValue value(3, 100000);
  value -= TimeValue(1, 200000);
  EXPECT_EQ(value.tv_sec, 1);
  EXPECT_EQ(value.tv_usec, 900000);
}

TEST(TimeValueTest, ADifferenceBelowZeroKeepsItsMicrosecondsPositive) {
  TimeValue value(0, 0);
  value -= TimeValue(0, 1);
  EXPECT_EQ(value.tv_sec, -1);
  EXPECT_EQ(value.tv_usec, 999999);
}

TEST(TimeValueTest, ExactlyOneSecondOfMicrosecondsIsCarried) {
  TimeValue value(0, 999999);
  value += TimeValue(0, 1);
  EXPECT_EQ(value.tv_sec, 1);
  EXPECT_EQ(value.tv_usec, 0);
}

TEST(TimeValueTest, OnlyZeroIsFalse) {
  EXPECT_FALSE(static_cast<bool>(TimeValue(0, 0)));
  EXPECT_TRUE(static_cast<bool>(TimeValue(0, 1)));
  EXPECT_TRUE(static_cast<bool>(TimeValue(1, 0)));
  EXPECT_TRUE(static_cast<bool>(TimeValue(-1, 0)));
}

TEST(TimeValueTest, CopiesTakeTheTextAlong) {
  const InUtc utc;
  TimeValue value(0, 0);
  value.setTbuf();
  const TimeValue copy(value);
  TimeValue assigned(7, 7);
  assigned = value;
  EXPECT_STREQ(copy.tbuf, value.tbuf);
  EXPECT_STREQ(assigned.tbuf, value.tbuf);
  EXPECT_EQ(assigned.tv_sec, 0);
}

TEST(TimeValueTest, TextIsLocalTimeWithMilliseconds) {
  const InUtc utc;
  TimeValue value(1700000000, 123456);
  value.setTbuf();
  EXPECT_STREQ(value.tbuf, "2023-11-14 22:13:20.123");
}

TEST(TimeValueTest, TextOfMicrosecondsBelowZeroIsThatOfTheMomentMeant) {
  const InUtc utc;
  TimeValue value(1700000000, -1000);
  value.setTbuf();
  EXPECT_STREQ(value.tbuf, "2023-11-14 22:13:19.999");
  EXPECT_EQ(value.tv_usec, -1000);
}

TEST(TimeValueTest, TheLargestTimesFitTheirBuffer) {
  using Limits = std::numeric_limits<time_t>;  // 32-bit times end in the year 2038
  for (const std::int64_t sec : {253402300800, 67767976233532799, -67768040609740800}) {
    TimeValue value(0, 999999);
    value.tv_sec = static_cast<time_t>(std::clamp<std::int64_t>(sec, Limits::min(), Limits::max()));
    value.setTbuf();
    EXPECT_LT(std::string(value.tbuf).size(), sizeof value.tbuf);
  }
}

TEST(TimeValueTest, CurrentSystemTimeIsTheWallClock) {
  const time_t before = time(nullptr);
  timeval now{};
  TimeValue::getCurrentSystemTime(now);
  EXPECT_GE(now.tv_sec, before);
  EXPECT_LE(now.tv_sec, time(nullptr) + 1);
  EXPECT_GE(now.tv_usec, 0);
  EXPECT_LT(now.tv_usec, 1000000);
}

}  // namespace
