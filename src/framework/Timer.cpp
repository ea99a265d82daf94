#include "Timer.h"

#include "framework/Clock.h"

namespace {

// Beyond this a delay counts as for ever, and the arithmetic stays far from overflow.
constexpr std::int64_t kLongestSeconds = std::int64_t{100} * 365 * 24 * 3600;

std::int64_t nanoseconds(const TimeValue& delay) {
  if (delay.tv_sec > kLongestSeconds)
    return kLongestSeconds * drovane::Clock::kNanosecondsPerSecond;
  if (delay.tv_sec < -kLongestSeconds) return 0;
  const std::int64_t total = std::int64_t{delay.tv_sec} * drovane::Clock::kNanosecondsPerSecond +
                             std::int64_t{delay.tv_usec} * 1000;
  return total > 0 ? total : 0;
}

}  // namespace

void Timer::set(const TimeValue& delay, bool flag) {
  if (flag && armed) return;
  armed = drovane::Clock::now() + nanoseconds(delay);
}

std::optional<std::int64_t> Timer::expiry() const { return armed; }

void Timer::clear() { armed.reset(); }
