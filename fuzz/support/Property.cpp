#include "support/Property.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Drovane.h"
#include "RovikUtil.h"
#include "framework/RecordPool.h"

namespace fuzzing {
namespace {

// The number that the next descriptor will have.
int lowestFree() {
  const int copy = ::dup(STDERR_FILENO);
  require(copy >= 0, "a descriptor is to be had");
  ::close(copy);
  return copy;
}

std::string shown(std::string_view text) {
  std::string escaped;
  RovikUtil::escape(escaped, text.data(), text.size());
  return escaped;
}

}  // namespace

std::string_view asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "PROPERTY DOES NOT HOLD: %s\n", property);
  std::abort();
}

void requireSame(std::string_view expected, std::string_view actual, const char* property) {
  if (expected == actual) return;
  std::fprintf(stderr, "expected %s\nactual   %s\n", shown(expected).c_str(),
               shown(actual).c_str());
  require(false, property);
}

void silenceLog() { Drovane::global.setLogLevel(0); }

Balance::Balance() : records(drovane::RecordPool::inUse()), descriptor(lowestFree()) {}

void Balance::check() const {
  require(drovane::RecordPool::inUse() == records, "every message record is given back");
  require(lowestFree() == descriptor, "every descriptor is closed");
}

}  // namespace fuzzing
