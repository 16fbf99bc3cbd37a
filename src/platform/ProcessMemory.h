#pragma once

#include <cstdint>

namespace zun {

/// Anonymous memory of this process in bytes, or 0 where the system does not tell.
/// Any thread.
[[nodiscard]] uint64_t anonymousMemoryInUse();

/// Keeps the allocator from spreading over many heaps, and from keeping large blocks for
/// later. At the start, before there are threads.
void boundAllocator();

/// Gives the system back what the allocator keeps for later, where that is much. Takes
/// milliseconds; any thread.
void returnFreeMemory();

}  // namespace zun
