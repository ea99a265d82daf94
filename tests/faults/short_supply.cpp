// Memory and threads that are not to be had, for a program that is started with this library in
// LD_PRELOAD.
//
// The file that DROVANE_SHORT_SUPPLY_FILE names is mapped, so that the supply of a running program
// can change. It holds two 32-bit numbers, each without effect while it is 0:
//   n    every n-th request for memory fails, whoever makes it
//   m    the m-th thread cannot be made
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The C library's own functions under their other names.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

struct Supply {
  std::atomic<std::uint32_t> memory;
  std::atomic<std::uint32_t> threads;
};

std::atomic<const Supply*> supply{nullptr};
std::atomic<std::uint32_t> memory_requests{0};
std::atomic<std::uint32_t> thread_requests{0};

__attribute__((constructor)) void mapFile() {
  const char* path = std::getenv("DROVANE_SHORT_SUPPLY_FILE");
  if (path == nullptr) return;
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  void* const mapped = ::mmap(nullptr, sizeof(Supply), PROT_READ, MAP_SHARED, file, 0);
  ::close(file);
  if (mapped != MAP_FAILED) supply = static_cast<const Supply*>(mapped);
}

bool memoryFails() {
  const Supply* const now = supply.load(std::memory_order_relaxed);
  const std::uint32_t n = now != nullptr ? now->memory.load(std::memory_order_relaxed) : 0;
  if (n == 0 || (memory_requests.fetch_add(1, std::memory_order_relaxed) + 1) % n != 0)
    return false;
  errno = ENOMEM;
  return true;
}

bool threadFails() {
  const Supply* const now = supply.load(std::memory_order_relaxed);
  return now != nullptr && thread_requests.fetch_add(1) + 1 == now->threads;
}

}  // namespace

extern "C" void* malloc(std::size_t size) noexcept {
  return memoryFails() ? nullptr : __libc_malloc(size);
}

extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
  return memoryFails() ? nullptr : __libc_calloc(count, size);
}

extern "C" void* realloc(void* block, std::size_t size) noexcept {
  return memoryFails() ? nullptr : __libc_realloc(block, size);
}

// Records are asked for in this way.
extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return memoryFails() ? nullptr : __libc_memalign(alignment, size);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  return threadFails() ? EAGAIN : create(thread, attributes, body, argument);
}
