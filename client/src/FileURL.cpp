#include "FileURL.h"

namespace zunreporting {

namespace {

// Not isalnum: that one follows the process's locale.
bool standsForItself(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("-._~/").find(character) != std::string_view::npos;
}

}  // namespace

std::string fileURL(std::string_view absolutePath) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string url = "file://";
  for (const char character : absolutePath) {
    if (standsForItself(character)) {
      url += character;
      continue;
    }
    const auto byte = static_cast<unsigned char>(character);
    url += '%';
    url += kDigits[byte >> 4];
    url += kDigits[byte & 15];
  }
  return url;
}

}  // namespace zunreporting
