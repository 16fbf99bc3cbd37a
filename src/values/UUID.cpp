#include "values/UUID.h"

#include <string_view>

namespace zun {

std::string uuidString(const std::array<std::byte, 16>& bytes) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[std::to_integer<size_t>(bytes[i] >> 4)];
    text += kDigits[std::to_integer<size_t>(bytes[i] & std::byte{0x0F})];
  }
  return text;
}

}  // namespace zun
