#include "LocalTime.h"

#include <array>
#include <ctime>

#include "RovikUtil.h"
#include "TimeValue.h"

namespace drovane {

std::string localTime(std::int64_t seconds, int milliseconds) {
  const auto moment = static_cast<std::time_t>(seconds);
  std::tm local{};
  localtime_r(&moment, &local);
  std::array<char, 32> date{};
  std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &local);
  const long offset = local.tm_gmtoff / 60;
  const long minutes = offset < 0 ? -offset : offset;
  return RovikUtil::vsnprintftostr("%s.%03d%c%02ld:%02ld", date.data(), milliseconds,
                                   offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

std::string localTimeNow() {
  timeval now{};
  TimeValue::getCurrentSystemTime(now);
  return localTime(now.tv_sec, static_cast<int>(now.tv_usec / 1000));
}

}  // namespace drovane
