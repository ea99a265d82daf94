// What a series of samples says: its middle, its ends, and whether it grows.
#pragma once

#include <string>
#include <vector>

#include "Sample.h"

namespace soak {

struct Range {
  double lowest = 0;
  double median = 0;
  double highest = 0;
};
Range rangeOf(std::vector<double> values);

// The samples without the beginning, in which caches fill and buffers find their size.
std::vector<Sample> warm(const std::vector<Sample>& samples);

// What grows beyond what it may, and by how much. Too few samples say nothing.
std::vector<std::string> drift(const std::vector<Sample>& samples);

// The table of all quantities.
std::string table(const std::vector<Sample>& samples);

}  // namespace soak
