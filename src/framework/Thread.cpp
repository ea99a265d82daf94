#include "Thread.h"

#include <signal.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <new>
#include <semaphore>

#include "Log.h"
#include "RecordPool.h"

namespace {

// Room for scripts that recurse to the interpreter's own limit, and small enough that a thousand
// threads fit into a 32-bit address space.
constexpr std::size_t kStackSize = 2 * 1024 * 1024;

// New threads inherit the mask of their maker: block everything around the creation.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before{};
};

// What a thread has of its own is made when it is first used, and the C library ends the process
// when it has no memory for that: better at the start than in the middle of a shortage.
void prepare() {
  try {
    drovane::Log::prepareThread();
    drovane::RecordPool::prepareThread();
  } catch (const std::bad_alloc&) {
    // Each is tried again when it is used.
  }
}

// Given to a new thread by the one that makes it. That one waits until the new thread has what is
// its own, so that a shortage of memory after a start that succeeded does not end the process.
struct Birth {
  Thread* self;
  std::binary_semaphore prepared{0};
};

}  // namespace

Thread::Thread() : handle(), started(false), asked(false) {}

Thread::~Thread() = default;

void* Thread::body(void* birth) {
  auto* const given = static_cast<Birth*>(birth);
  Thread* const self = given->self;
  prepare();
  given->prepared.release();
  self->main();
  return nullptr;
}

int Thread::start(const char* label) {
  if (started) return 0;
  asked.store(false, std::memory_order_release);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStackSize);
  Birth birth{this};
  int error = 0;
  {
    const SignalsBlocked blocked;
    error = pthread_create(&handle, &attributes, body, &birth);
  }
  pthread_attr_destroy(&attributes);
  if (error != 0) return error;
  started = true;
  birth.prepared.acquire();
  std::array<char, 16> shortened{};  // what the kernel keeps, with a terminator
  std::strncpy(shortened.data(), label, shortened.size() - 1);
  pthread_setname_np(handle, shortened.data());
  return 0;
}

int Thread::stop() {
  askToStop();
  if (!started) return 0;
  started = false;
  return pthread_join(handle, nullptr) == 0 ? 0 : -1;
}
