// Counts system calls exactly, where the kernel lets this process do so.
#pragma once

#include <cstdint>
#include <string>

#include "framework/Descriptor.h"

namespace bench {

// The kernel counts at its entry, so that nothing is missed; every look adds one call. Needs a root
// user, or a machine that shows its trace events to everybody.
class SystemCalls {
 public:
  // Finds out whether calls can be counted. To be made before any thread.
  SystemCalls();

  // Empty when calls can be counted.
  const std::string& whyNot() const { return reason; }

  // Counts those of this thread and of every thread that is started before the end, of ended ones
  // too. Makes system calls slower on the whole machine, so not where time is measured. Does
  // nothing when calls cannot be counted.
  void begin();
  void end() { counter.reset(); }

  // Since begin; 0 when nothing is counted. Any thread may ask.
  std::uint64_t count() const;

 private:
  std::uint64_t event;  // as the kernel numbers it
  drovane::Descriptor counter;
  std::string reason;
};

}  // namespace bench
