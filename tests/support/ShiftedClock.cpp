#include "support/ShiftedClock.h"

#include <cstdlib>
#include <filesystem>
#include <utility>

#include "support/Emulation.h"

namespace {

std::string inherited(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

std::string ShiftedClock::path() const { return folder / "shift"; }

void ShiftedClock::set(std::int64_t seconds) const {
  std::filesystem::rename(folder.write("next", std::to_string(seconds)), path());
}

Process::Environment ShiftedClock::environment(Process::Environment extra) const {
  // What starts the emulator is a program of this machine and cannot load the library.
  if (emulated() != nullptr)
    extra["QEMU_SET_ENV"] = "LD_PRELOAD=" DROVANE_SHIFTED_CLOCK;
  else
    extra["LD_PRELOAD"] = DROVANE_SHIFTED_CLOCK;
  extra["DROVANE_CLOCK_SHIFT_FILE"] = path();
  // The address sanitizer wants to be the first library, for calls that this one has not.
  extra["ASAN_OPTIONS"] = inherited("ASAN_OPTIONS") + ":verify_asan_link_order=0";
  return extra;
}
