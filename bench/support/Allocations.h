// Counts the calls of operator new in the whole process, the framework's library included.
#pragma once

#include <cstdint>

namespace bench {

// Any thread may begin and end the count; while none is under way a call costs one branch more.
void beginAllocationCount();
std::uint64_t endAllocationCount();

}  // namespace bench
