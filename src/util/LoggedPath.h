#pragma once

#include <cstddef>
#include <string>

#include "values/UTF8.h"

namespace zun {

/// What log lines hold of a path or URL that a client gives, at most: a call that is refused
/// costs it nothing, so that it must not cost the disk much.
inline constexpr size_t kMaximumLoggedPathBytes = size_t{1} << 10;

[[nodiscard]] inline std::string loggedPath(std::string path) {
  cutLongText(path, kMaximumLoggedPathBytes);
  return path;
}

}  // namespace zun
