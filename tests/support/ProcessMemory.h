// What this process holds: a test that does something many times looks here for what is left
// behind.
#pragma once

#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/Emulation.h"
#include "support/Sanitizers.h"

// A sanitizer keeps freed memory back, or memory of its own for each thread: its figures say
// nothing about ours. The address sanitizer looks for leaks itself.
inline constexpr bool kMemoryIsOurs = !kSanitized;

// Memory of this process that is in use, in bytes. An emulator keeps what it has translated in the
// same process; there it is what the allocator has handed out.
inline long residentMemory() {
  if (emulated() != nullptr) {
    const auto heap = mallinfo2();
    return static_cast<long>(heap.uordblks + heap.hblkhd);
  }
  long total = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

inline std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator listed("/proc/self/fd");
  return std::distance(begin(listed), end(listed));
}
