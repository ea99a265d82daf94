// The command line that all benchmarks share.
#pragma once

#include <functional>
#include <string>

namespace bench {

struct Options {
  bool quick = false;  // a smoke run: the self-checks count, the figures do not
  std::string json;    // file that the figures are added to; empty for none
};

// The whole of a benchmark's main: reads the command line, calls `run` and returns the exit status.
// An exception is printed and becomes 1.
int runBenchmark(int argc, char** argv, const std::string& purpose,
                 const std::function<int(const Options&)>& run);

}  // namespace bench
