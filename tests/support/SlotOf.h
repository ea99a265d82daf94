// Where a virtual operation stands in its class's table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// In the Itanium C++ ABI the member pointer begins with 1 plus the offset in bytes, on ARM with the
// offset alone.
template <typename Member>
std::size_t slotOf(Member member) {
  std::uintptr_t offset = 0;
  static_assert(sizeof(member) >= sizeof(offset));
  std::memcpy(&offset, &member, sizeof offset);
  return (offset & ~std::uintptr_t{1}) / sizeof(void*);
}
