#include "TimeValue.h"

#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

namespace {

constexpr suseconds_t kMicrosecondsPerSecond = 1'000'000;

void normalise(timeval& value) {
  value.tv_sec += value.tv_usec / kMicrosecondsPerSecond;
  value.tv_usec %= kMicrosecondsPerSecond;
  if (value.tv_usec >= 0) return;
  value.tv_usec += kMicrosecondsPerSecond;
  value.tv_sec -= 1;
}

}  // namespace

TimeValue::TimeValue(int sec, int usec) : timeval{sec, usec}, tbuf{} {}

TimeValue::TimeValue(const TimeValue& other) : timeval(other) {
  std::memcpy(tbuf, other.tbuf, sizeof tbuf);
}

TimeValue& TimeValue::operator=(const TimeValue& other) = default;

TimeValue& TimeValue::operator+=(const TimeValue& other) {
  tv_sec += other.tv_sec;
  tv_usec += other.tv_usec;
  normalise(*this);
  return *this;
}

TimeValue& TimeValue::operator-=(const TimeValue& other) {
  tv_sec -= other.tv_sec;
  tv_usec -= other.tv_usec;
  normalise(*this);
  return *this;
}

TimeValue::operator bool() const { return tv_sec != 0 || tv_usec != 0; }

void TimeValue::setTbuf() {
  timeval whole = *this;
  normalise(whole);
  tm local{};
  localtime_r(&whole.tv_sec, &local);
  const std::size_t length = strftime(tbuf, sizeof tbuf, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(tbuf + length, sizeof tbuf - length, ".%03d",
                static_cast<int>(whole.tv_usec / 1000));
}

// It cannot be told where a time_t has 32 bits and the year 2038 has passed. The last moment that
// could be told is better than none: nothing gets older than what was before.
void TimeValue::getCurrentSystemTime(timeval& now) {
  if (gettimeofday(&now, nullptr) == 0) return;
  now.tv_sec = std::numeric_limits<std::int32_t>::max();
  now.tv_usec = kMicrosecondsPerSecond - 1;
}

bool operator>(const TimeValue& a, const TimeValue& b) {
  if (a.tv_sec != b.tv_sec) return a.tv_sec > b.tv_sec;
  return a.tv_usec > b.tv_usec;
}
