#pragma once

#include <optional>

#include "values/Error.h"

namespace zun {

/// 0 where all went well.
inline int codeOf(const std::optional<Error>& error) {
  return error ? error->code : 0;
}

}  // namespace zun
