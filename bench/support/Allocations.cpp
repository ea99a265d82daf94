#include "support/Allocations.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> counting{false};
std::atomic<std::uint64_t> calls{0};

void count() noexcept {
  if (counting.load(std::memory_order_relaxed)) calls.fetch_add(1, std::memory_order_relaxed);
}

void* counted(std::size_t size) noexcept {
  count();
  return std::malloc(size != 0 ? size : 1);
}

void* countedOrThrow(std::size_t size) {
  void* block = counted(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

// The program's own, which take the place of the library's for everything that it loads.
void* operator new(std::size_t size) { return countedOrThrow(size); }
void* operator new[](std::size_t size) { return countedOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
// Records are asked for in this way.
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  count();
  const auto unit = static_cast<std::size_t>(alignment);
  return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

namespace bench {

void beginAllocationCount() {
  calls.store(0, std::memory_order_relaxed);
  counting.store(true, std::memory_order_seq_cst);
}

std::uint64_t endAllocationCount() {
  counting.store(false, std::memory_order_seq_cst);
  return calls.load(std::memory_order_relaxed);
}

}  // namespace bench
