#include "MemoryFaults.h"

#include <cstdlib>
#include <new>
#include <stdexcept>

namespace {

thread_local NoMemory* missing = nullptr;

std::size_t sizeOf(MessageTypes type) {
  switch (type) {
    case MM_DATA:
      return sizeof(MMData);
    case MM_DATA_REQUEST:
      return sizeof(MMDataRequest);
    case MM_ACTUATOR_REQUEST:
      return sizeof(MMActuatorRequest);
    case MM_CMD_REQUEST:
      return sizeof(MMCmdRequest);
    case MM_CMD_RESPONSE:
      return sizeof(MMCmdResponse);
    case MM_MSG:
      return sizeof(MMMsg);
    default:
      return sizeof(RovikMessage);
  }
}

void* allocate(std::size_t size, NoMemory::For asker) noexcept {
  return NoMemory::strikes(size, asker) ? nullptr : std::malloc(size > 0 ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
  void* const memory = allocate(size, NoMemory::For::Everybody);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

NoMemory::NoMemory(std::size_t of_size, For its_askers) : size(of_size), askers(its_askers) {
  if (missing != nullptr) throw std::logic_error("memory is missing already");
  missing = this;
}

NoMemory::~NoMemory() { missing = nullptr; }

bool NoMemory::strikes(std::size_t size, For asker) {
  if (missing == nullptr || missing->size != size) return false;
  if (missing->askers == For::Nothrow && asker != For::Nothrow) return false;
  if (missing->spared > 0) {
    --missing->spared;
    return false;
  }
  missing->struck = true;
  return true;
}

// Other things may have a record's size; only records are asked for in this way.
NoRecords::NoRecords(MessageTypes type) : none(sizeOf(type), NoMemory::For::Nothrow) {
  while (auto record = newMessage<RovikMessage>(type)) taken.push_back(std::move(record));
}

// In place of the C++ library's: this executable's own come first, also for the libraries that it
// uses.
void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, NoMemory::For::Nothrow);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, NoMemory::For::Nothrow);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  if (NoMemory::strikes(size, NoMemory::For::Nothrow)) return nullptr;
  const auto unit = static_cast<std::size_t>(alignment);
  return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
