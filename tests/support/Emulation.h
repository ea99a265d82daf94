// Tests of a build for another machine run here under user-mode emulation, which does not pass on
// everything that a kernel can.
#pragma once

#include <cstdlib>

// The emulator that runs this test, as DROVANE_EMULATOR names it; nothing on a machine of its own.
inline const char* emulated() { return std::getenv("DROVANE_EMULATOR"); }

// For a test of what the emulator cannot do. `what` says that, to come after "the emulator ".
#define SKIP_WHEN_EMULATED(what) \
  if (emulated() != nullptr) GTEST_SKIP() << "the emulator " << (what)
