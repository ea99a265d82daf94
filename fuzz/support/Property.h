// What every fuzz target has to say: an input is fine unless a property does not hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fuzzing {

std::string_view asText(const std::uint8_t* data, std::size_t size);

// Ends the process with the property's text when it does not hold, which makes libFuzzer keep the
// input.
void require(bool holds, const char* property);
void requireSame(std::string_view expected, std::string_view actual, const char* property);

// Nothing is written to the log, so that a run is fast and its output is libFuzzer's.
void silenceLog();

// What an input has taken has to be given back: message records and descriptors. For targets
// without further threads.
class Balance {
 public:
  Balance();
  void check() const;

 private:
  std::int64_t records;
  int descriptor;
};

}  // namespace fuzzing
