// A rovik's timer: one expiry, which makes the rovik's loop call selectTI.
#pragma once

#include <cstdint>
#include <optional>

#include "TimeValue.h"

// Driven by the monotonic clock, so setting the wall clock neither delays nor hastens an expiry.
// Belongs to the rovik: only the thread that runs the rovik's slots and commands may call.
class Timer {
 public:
  // Arms the timer to expire after `delay` from now, in place of any earlier expiry. A delay of
  // zero or below expires at once. With `flag` true an expiry that is already armed is kept.
  void set(const TimeValue& delay, bool flag);

  // The armed expiry in nanoseconds of the monotonic clock; none when the timer is not armed.
  std::optional<std::int64_t> expiry() const;

  // Disarms the timer.
  void clear();

 private:
  std::optional<std::int64_t> armed;
};
