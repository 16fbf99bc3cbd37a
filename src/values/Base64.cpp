#include <array>
#include <cstdint>

#include "values/Base64.h"

namespace zun {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kForeign = 0xFF;

constexpr std::array<uint8_t, 256> kDigits = [] {
  std::array<uint8_t, 256> digits{};
  digits.fill(kForeign);
  for (size_t i = 0; i < kAlphabet.size(); ++i) {
    digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
  }
  return digits;
}();

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  const auto byte = [bytes](size_t index) -> uint32_t {
    return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0;
  };
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const uint32_t group = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    const size_t present = bytes.size() - i;
    text += kAlphabet[group >> 18];
    text += kAlphabet[group >> 12 & 0x3F];
    text += present > 1 ? kAlphabet[group >> 6 & 0x3F] : '=';
    text += present > 2 ? kAlphabet[group & 0x3F] : '=';
  }
  return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  uint32_t group = 0;
  size_t digits = 0;
  size_t padding = 0;
  for (const char character : text) {
    if (character == '=') {
      ++padding;
      continue;
    }
    const uint8_t digit = kDigits[static_cast<unsigned char>(character)];
    if (digit == kForeign) continue;
    if (padding > 0) return std::nullopt;
    group = group << 6 | digit;
    if (++digits % 4 != 0) continue;
    bytes += static_cast<char>(group >> 16);
    bytes += static_cast<char>(group >> 8);
    bytes += static_cast<char>(group);
  }
  const size_t rest = digits % 4;
  if (rest == 1 || padding != (rest == 0 ? 0 : 4 - rest)) return std::nullopt;
  if (rest == 2) bytes += static_cast<char>(group >> 4);
  if (rest == 3) {
    bytes += static_cast<char>(group >> 10);
    bytes += static_cast<char>(group >> 2);
  }
  return bytes;
}

}  // namespace zun
