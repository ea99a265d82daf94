// What the process does about signals while it runs a house.
#pragma once

#include <cstdint>

#include "framework/Descriptor.h"

namespace drovane {

// From now on SIGINT and SIGTERM end the process at once with status 0: for what has nothing to
// tidy up.
void leaveOnSignals();

// Takes SIGINT, SIGTERM and SIGHUP as readable events. Make it before any thread is started:
// threads inherit what is blocked here.
class Signals {
 public:
  // Throws std::system_error.
  Signals();

  enum class Event { Interrupt, Terminate, HangUp, Done, Deadline };

  // Waits for a signal, for `done` (an eventfd; -1 for none) to become readable, or for the
  // deadline in nanoseconds of Clock (negative for none).
  Event wait(int done, std::int64_t deadline) const;

 private:
  Descriptor descriptor;
};

}  // namespace drovane
