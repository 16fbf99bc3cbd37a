#pragma once

#include <cstdint>

namespace zun {

/// Anonymous memory of this process in bytes, or 0 where the system does not tell.
/// Any thread.
[[nodiscard]] uint64_t anonymousMemoryInUse();

}  // namespace zun
