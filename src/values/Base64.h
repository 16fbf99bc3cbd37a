#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zun {

/// Standard Base64, padded, without line breaks. Any thread.
[[nodiscard]] std::string base64Encode(std::string_view bytes);
/// Skips characters outside the alphabet. None when what remains is not Base64. Any thread.
[[nodiscard]] std::optional<std::string> base64Decode(std::string_view text);

}  // namespace zun
