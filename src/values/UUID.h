#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace zun {

/// The UUID of these bytes in canonical upper-case form (8-4-4-4-12 hexadecimal digits).
[[nodiscard]] std::string uuidString(const std::array<std::byte, 16>& bytes);

}  // namespace zun
