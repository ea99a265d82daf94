// The framework's one source of time, so that a test can pass half a minute in no time at all.
#pragma once

#include <cstdint>

namespace drovane::Clock {

inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Monotonic time in nanoseconds (CLOCK_MONOTONIC) plus whatever was skipped. Any thread.
std::int64_t now();

// Monotonic time at the resolution of the kernel's tick, some milliseconds; far cheaper than now().
std::int64_t coarse();

// Moves the clock forward for the whole process. Loops that already wait do not notice by
// themselves: wake them (Mailbox::wake).
void skip(std::int64_t nanoseconds);

}  // namespace drovane::Clock
