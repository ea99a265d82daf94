// Linked into the program and into every library, for each has its own copy of what writes the
// counters.
extern "C" {
#include <gcov.h>
}

#include "ExitWriters.h"

namespace {

[[maybe_unused]] const bool registered = [] {
  if (writeOnExit != nullptr) writeOnExit(__gcov_dump);
  return writeOnExit != nullptr;
}();

}  // namespace
