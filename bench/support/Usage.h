// What a stretch of work cost this process, all its threads together.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <cstdint>

namespace bench {

using SteadyClock = std::chrono::steady_clock;

inline double secondsSince(SteadyClock::time_point begun, SteadyClock::time_point ended) {
  return std::chrono::duration<double>(ended - begun).count();
}

struct Usage {
  double cpu_seconds = 0;
  std::int64_t sleeps = 0;  // how often a thread gave its core away of its own accord

  static Usage now() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return {seconds(used.ru_utime) + seconds(used.ru_stime), used.ru_nvcsw};
  }
  Usage operator-(const Usage& before) const {
    return {cpu_seconds - before.cpu_seconds, sleeps - before.sleeps};
  }
};

}  // namespace bench
