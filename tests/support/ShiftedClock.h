// A wrong wall clock for a program that a test starts; the test's own clock stays right.
#pragma once

#include <cstdint>
#include <string>

#include "support/Process.h"
#include "support/TempFolder.h"

class ShiftedClock {
 public:
  // By how many seconds the clock is ahead; behind when below zero.
  explicit ShiftedClock(std::int64_t seconds) { set(seconds); }

  // Makes the clock of the programs that have this environment jump. They see either the clock
  // before or the one after, nothing else.
  void set(std::int64_t seconds) const;

  // What Process is to be given. `extra` is what the test adds itself.
  Process::Environment environment(Process::Environment extra = {}) const;

 private:
  std::string path() const;

  TempFolder folder;
};
