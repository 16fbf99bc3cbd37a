#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zun {

/// What an entitled client may say of itself; where nothing is given, anything.
struct ClientClaims {
  std::optional<std::vector<int64_t>> clientTypes;
  std::optional<std::vector<std::string>> clientNames;
  /// Only hierarchies whose sessions have all been the same user's.
  bool onlyOwnHierarchies = false;
};

}  // namespace zun
