#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace zun {

/// Different ASCII texts of 16 bytes that begin with `first` and have one and the same hash
/// in a table of the standard library, as anybody can make them: that hash can be computed
/// backwards.
inline std::vector<std::string> collidingTexts(char first, size_t count) {
  constexpr uint64_t kMultiplier = 0xC6A4A7935BD1E995;
  constexpr uint64_t kNotASCII = 0x8080808080808080;
  uint64_t inverse = kMultiplier;
  for (int i = 0; i < 6; ++i) inverse *= 2 - kMultiplier * inverse;
  const auto mixed = [](uint64_t word, uint64_t factor) {
    word *= factor;
    return (word ^ word >> 47) * factor;
  };
  const uint64_t seeded = 0xC70F6907 ^ 16 * kMultiplier;
  std::vector<std::string> texts;
  for (uint64_t i = 0; texts.size() < count; ++i) {
    const uint64_t low = (i & 0x7F) | (i & 0x3F80) << 1 | (i & 0x1FC000) << 2 | (i & 0xFE00000) << 3;
    std::array<uint64_t, 2> words{low << 8 | static_cast<unsigned char>(first), 0};
    words[1] = mixed((seeded ^ mixed(words[0], kMultiplier)) * kMultiplier, inverse);
    if ((words[1] & kNotASCII) != 0) continue;
    texts.emplace_back(reinterpret_cast<const char*>(words.data()), sizeof words);
  }
  return texts;
}

}  // namespace zun
