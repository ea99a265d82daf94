#include "Clock.h"

#include <time.h>

#include <atomic>

namespace drovane::Clock {
namespace {

std::atomic<std::int64_t> skipped{0};

std::int64_t read(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return std::int64_t{ts.tv_sec} * kNanosecondsPerSecond + ts.tv_nsec +
         skipped.load(std::memory_order_relaxed);
}

}  // namespace

std::int64_t now() { return read(CLOCK_MONOTONIC); }

std::int64_t coarse() { return read(CLOCK_MONOTONIC_COARSE); }

void skip(std::int64_t nanoseconds) { skipped.fetch_add(nanoseconds, std::memory_order_relaxed); }

}  // namespace drovane::Clock
