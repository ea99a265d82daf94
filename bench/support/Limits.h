// What a process of many links needs of the system.
#pragma once

#include <sys/resource.h>

#include <stdexcept>
#include <string>

namespace bench {

// Every link takes a descriptor for its peer and one to wake its thread.
inline void allowDescriptors(rlim_t needed) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < needed)
    throw std::runtime_error("needs " + std::to_string(needed) + " descriptors: ulimit -Hn");
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace bench
