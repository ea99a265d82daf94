// One run of one rival. All of these throw when the rival did not do its job right.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rivals/Rivals.h"

namespace bench {

// Lines "T<n>=<v>" of ten bytes, line feed included, that are sent round and round.
class Lines {
 public:
  Lines();
  // The bytes of the first `count` lines.
  std::string_view block(std::size_t count) const;
  std::size_t size() const { return values.size(); }
  // The sum of the values of the first `count` lines of the stream.
  std::uint64_t sum(std::uint64_t count) const;

 private:
  std::string bytes;
  std::vector<std::uint64_t> values;
};

struct Flood {
  double seconds;         // from the first line's sending until the rival has reported
  double cpu_seconds;     // of the rival from the connection on
  double peak_megabytes;  // of resident memory
};

// As many lines as the connection takes.
Flood flood(const Rival& rival, const Lines& lines, std::uint64_t count, const std::string& folder);

// The same stream to a process that reads and forgets: what the sender is good for. In seconds.
double floodNobody(const Lines& lines, std::uint64_t count);

// One line at a time, each sent when the one before has been answered. In microseconds.
std::vector<double> roundTrips(const Rival& rival, int count, const std::string& folder);

}  // namespace bench
