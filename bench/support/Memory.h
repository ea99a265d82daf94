// How much memory this process has in use.
#pragma once

#include <unistd.h>

#include <fstream>
#include <string>

namespace bench {

// Counted page by page where the kernel does that, else from its running total, which lags behind.
inline double residentKilobytes() {
  std::ifstream in("/proc/self/smaps_rollup");
  for (std::string word; in >> word;) {
    double kilobytes = 0;
    if (word == "Rss:" && in >> kilobytes) return kilobytes;
  }
  std::ifstream pages("/proc/self/statm");
  double total = 0;
  double resident = 0;
  pages >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

}  // namespace bench
