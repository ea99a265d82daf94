// Linked where the lines that a test runs are counted: the counters are written also by a process
// that ends without its exit handlers, through _exit or a signal that nothing can catch.
#include <unistd.h>

#include <chrono>
#include <thread>

extern "C" {
void __gcov_dump();
void __gcov_reset();
}

#ifdef FLUSH_AT_EXIT

extern "C" {
[[noreturn]] void __real__exit(int status);

[[noreturn]] void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}
}

#else

namespace {

// Counts are added to what the files hold.
[[noreturn]] void flushForEver() {
  while (true) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    __gcov_dump();
    __gcov_reset();
  }
}

const bool flushing = (std::thread(flushForEver).detach(), true);

}  // namespace

#endif
