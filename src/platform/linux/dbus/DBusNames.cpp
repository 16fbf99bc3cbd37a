#include "platform/linux/dbus/DBusNames.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

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

/// Eight bytes of ASCII without a zero byte: what nearly all text is made of.
bool isPlainWord(uint64_t word) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHigh = 0x8080808080808080ULL;
  return ((word | (word - kOnes)) & kHigh) == 0;
}

/// Length of the well-formed sequence at the front of `text`, or 0.
size_t sequenceLength(std::string_view text) {
  const auto byte = [text](size_t index) { return static_cast<unsigned char>(text[index]); };
  const auto continues = [text, byte](size_t index) {
    return index < text.size() && (byte(index) & 0xC0) == 0x80;
  };
  const unsigned char first = byte(0);
  if (first < 0x80) return first == 0 ? 0 : 1;
  if (first < 0xC2 || first > 0xF4 || !continues(1)) return 0;
  if (first < 0xE0) return 2;
  const unsigned char second = byte(1);
  if (!continues(2)) return 0;
  if (first < 0xF0) {
    const bool isOverlong = first == 0xE0 && second < 0xA0;
    const bool isSurrogate = first == 0xED && second >= 0xA0;
    return isOverlong || isSurrogate ? 0 : 3;
  }
  const bool isOverlong = first == 0xF0 && second < 0x90;
  const bool isBeyond = first == 0xF4 && second >= 0x90;
  return isOverlong || isBeyond || !continues(3) ? 0 : 4;
}

/// Bytes of well-formed text at the front of `text`.
size_t textPrefix(std::string_view text) {
  size_t position = 0;
  while (position < text.size()) {
    uint64_t word = 0;
    if (text.size() - position >= sizeof word) {
      std::memcpy(&word, text.data() + position, sizeof word);
      if (isPlainWord(word)) {
        position += sizeof word;
        continue;
      }
    }
    const size_t length = sequenceLength(text.substr(position));
    if (length == 0) break;
    position += length;
  }
  return position;
}

bool isNameElement(std::string_view element) {
  return !element.empty() && isLetter(element.front()) &&
         std::all_of(element.begin(), element.end(), isLetterOrDigit);
}

}  // namespace

bool isDBusText(std::string_view text) {
  return textPrefix(text) == text.size();
}

std::string asDBusText(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  std::string clean;
  while (true) {
    const size_t good = textPrefix(text);
    clean += text.substr(0, good);
    if (good == text.size()) return clean;
    clean += "\xEF\xBF\xBD";
    text.remove_prefix(good + 1);
  }
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
