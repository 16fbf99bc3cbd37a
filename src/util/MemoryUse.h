#pragma once

#include <cstddef>
#include <cstdint>

#include "values/Value.h"

namespace zun {

/// Estimate of the memory behind a value, in bytes: its own block and, for what it
/// holds, each nested value's block twice (once in its own estimate, once in its
/// container's). The sum is kept in 32 bits and wraps.
[[nodiscard]] int32_t estimatedObjectSize(const Value& value);

/// What the heap gave for a value and all that it holds, in bytes: what several places in it
/// share counts at each.
[[nodiscard]] size_t allocatedBytes(const Value& value);

/// Anonymous memory of this process in bytes, 0 where the system does not tell.
[[nodiscard]] uint64_t processMemoryInUse();

}  // namespace zun
