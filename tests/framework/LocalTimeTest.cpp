// Times of day as the log, the status and the watchers show them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "framework/LocalTime.h"

namespace {

// Where this process is, for the time of a test.
class Zone {
 public:
  explicit Zone(const char* zone) {
    if (const char* before = std::getenv("TZ")) zone_before = before;
    set(zone);
  }
  ~Zone() { set(zone_before ? zone_before->c_str() : nullptr); }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;

 private:
  static void set(const char* zone) {
    if (zone != nullptr)
      ::setenv("TZ", zone, 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }

  std::optional<std::string> zone_before;
};

TEST(LocalTimeTest, EastOfGreenwichTheOffsetIsAdded) {
  const Zone zone("IST-5:30");
  EXPECT_EQ(drovane::localTime(0, 7), "1970-01-01T05:30:00.007+05:30");
}

TEST(LocalTimeTest, WestOfGreenwichTheOffsetIsTakenAway) {
  const Zone zone("NST3:30");
  EXPECT_EQ(drovane::localTime(0, 999), "1969-12-31T20:30:00.999-03:30");
}

TEST(LocalTimeTest, InGreenwichTheOffsetIsZero) {
  const Zone zone("UTC0");
  EXPECT_EQ(drovane::localTime(1'700'000'000, 0), "2023-11-14T22:13:20.000+00:00");
}

}  // namespace
