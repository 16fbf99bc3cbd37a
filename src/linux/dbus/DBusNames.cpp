#include "linux/dbus/DBusNames.h"

#include <algorithm>

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

bool isNameElement(std::string_view element) {
  return !element.empty() && isLetter(element.front()) &&
         std::all_of(element.begin(), element.end(), isLetterOrDigit);
}

}  // namespace

bool isDBusText(std::string_view text) {
  return isValidUTF8(text) && text.find('\0') == std::string_view::npos;
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
