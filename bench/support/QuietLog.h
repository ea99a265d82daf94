// The log at level 3, in a file that goes with the benchmark: the lines cost what they cost, and
// the table stays readable.
#pragma once

#include <string>

namespace bench {

class QuietLog {
 public:
  QuietLog();
  ~QuietLog();
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

 private:
  std::string folder;
};

}  // namespace bench
