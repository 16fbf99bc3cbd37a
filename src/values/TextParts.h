#pragma once

#include <string_view>
#include <vector>

namespace zun {

/// The parts between the commas of `text`, empty ones too: always at least one. They refer
/// to it.
inline std::vector<std::string_view> partsSplitAtCommas(std::string_view text) {
  std::vector<std::string_view> parts;
  while (true) {
    const size_t comma = text.find(',');
    parts.push_back(text.substr(0, comma));
    if (comma == std::string_view::npos) return parts;
    text.remove_prefix(comma + 1);
  }
}

}  // namespace zun
