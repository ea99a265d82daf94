// Memory that is not to be had, for one size or for one kind of message. The executables that have
// this use operator new as it is defined here (see tests/CMakeLists.txt).
#pragma once

#include <cstddef>
#include <vector>

#include "support/Message.h"

// While it lives, operator new has nothing of exactly this size for the thread that made it, or
// only nothing for those who ask with std::nothrow. One at a time for each thread.
class NoMemory {
 public:
  enum class For { Everybody, Nothrow };

  explicit NoMemory(std::size_t of_size, For its_askers = For::Everybody);
  ~NoMemory();
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;

  bool happened() const { return struck; }
  // One more can be had.
  void spareOne() { ++spared; }

  // Whether this allocation is to fail.
  static bool strikes(std::size_t size, For asker);

 private:
  const std::size_t size;
  const For askers;
  int spared = 0;
  bool struck = false;
};

// While it lives, the thread that made it gets no record of this kind: those that lie ready are
// taken, and there is no memory for new ones.
class NoRecords {
 public:
  explicit NoRecords(MessageTypes type);

  // One more can be had.
  void spareOne() { none.spareOne(); }

 private:
  NoMemory none;
  std::vector<Owned<RovikMessage>> taken;
};
