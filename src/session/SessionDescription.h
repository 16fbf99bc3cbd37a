#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "values/Value.h"

namespace zun {

/// What a client may replace, of what describes its session: it stays as long as the connection.
struct SessionDescription {
  /// What all of it takes in memory, at most.
  static constexpr size_t kMaximumBytes = size_t{64} << 10;

  Dictionary sessionInfo;
  std::optional<Dictionary> userInfo;
  Array frameworks;
  std::optional<std::string> digestKey;

  [[nodiscard]] size_t allocatedBytes() const;
};

}  // namespace zun
