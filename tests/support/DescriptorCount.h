#pragma once

#include <cstddef>
#include <filesystem>

namespace zun {

/// How many descriptors this process has open.
inline size_t openDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

}  // namespace zun
