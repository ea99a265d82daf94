// Wall-clock time as text.
#pragma once

#include <cstdint>
#include <string>

namespace drovane {

// Local ISO 8601 with milliseconds and offset: 2026-11-21T02:46:13.123+01:00.
std::string localTime(std::int64_t seconds, int milliseconds);
std::string localTimeNow();

}  // namespace drovane
