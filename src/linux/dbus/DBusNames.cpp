#include "linux/dbus/DBusNames.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "values/UTF8.h"

namespace zun {

namespace {

constexpr size_t kMaximumName = 255;

bool isLetter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') || character == '_';
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

bool isLetterOrDigit(char character) {
  return isLetter(character) || isDigit(character);
}

/// Nearly all text; without zero bytes. Eight of them at a time.
bool isPlainASCII(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHighBits = 0x8080808080808080ULL;
  for (uint64_t word = 0; text.size() >= sizeof word; text.remove_prefix(sizeof word)) {
    std::memcpy(&word, text.data(), sizeof word);
    if ((((word - kOnes) | word) & kHighBits) != 0) return false;
  }
  return std::all_of(text.begin(), text.end(),
                     [](char character) { return static_cast<signed char>(character) > 0; });
}

bool isNameElement(std::string_view element) {
  return !element.empty() && isLetter(element.front()) &&
         std::all_of(element.begin(), element.end(), isLetterOrDigit);
}

}  // namespace

bool isDBusText(std::string_view text) {
  return isPlainASCII(text) || (isValidUTF8(text) && text.find('\0') == std::string_view::npos);
}

std::string asDBusText(std::string_view text) {
  return replacingInvalidUTF8(text.substr(0, text.find('\0')));
}

bool isDBusObjectPath(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  if (path.size() == 1) return true;
  for (size_t index = 1; index < path.size(); ++index) {
    if (path[index] == '/' ? path[index - 1] == '/' : !isLetterOrDigit(path[index])) return false;
  }
  return path.back() != '/';
}

bool isDBusInterfaceName(std::string_view name) {
  if (name.size() > kMaximumName) return false;
  size_t elements = 0;
  while (true) {
    const size_t dot = name.find('.');
    if (!isNameElement(name.substr(0, dot))) return false;
    ++elements;
    if (dot == std::string_view::npos) return elements >= 2;
    name.remove_prefix(dot + 1);
  }
}

bool isDBusMemberName(std::string_view name) {
  return name.size() <= kMaximumName && isNameElement(name);
}

}  // namespace zun
