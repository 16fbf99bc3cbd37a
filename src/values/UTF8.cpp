#include "values/UTF8.h"

#include <fmt/format.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <iterator>

#include <wctype.h>

namespace zun {

namespace {

bool isSameASCIILetter(char left, char right) {
  return lowerCasedASCII(left) == lowerCasedASCII(right);
}

constexpr uint64_t kHighBits = 0x8080808080808080ULL;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

/// Length of the character at the start of `text`, 0 where there is none.
size_t characterLength(std::string_view text) {
  const auto byte = [text](size_t index) { return static_cast<unsigned char>(text[index]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  if (first < 0xC2) return 0;
  if (first < 0xE0) return text.size() >= 2 && isContinuation(byte(1)) ? 2 : 0;
  if (first < 0xF0) {
    if (text.size() < 3 || !isContinuation(byte(1)) || !isContinuation(byte(2))) return 0;
    const bool overlong = first == 0xE0 && byte(1) < 0xA0;
    const bool surrogate = first == 0xED && byte(1) >= 0xA0;
    return overlong || surrogate ? 0 : 3;
  }
  if (first > 0xF4 || text.size() < 4) return 0;
  if (!isContinuation(byte(1)) || !isContinuation(byte(2)) || !isContinuation(byte(3))) return 0;
  const bool overlong = first == 0xF0 && byte(1) < 0x90;
  const bool tooLarge = first == 0xF4 && byte(1) >= 0x90;
  return overlong || tooLarge ? 0 : 4;
}

/// The character at the start of `text`, which has that length.
char32_t characterAt(std::string_view text, size_t length) {
  if (length == 1) return static_cast<unsigned char>(text[0]);
  char32_t character = static_cast<unsigned char>(text[0]) & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    character = character << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
  }
  return character;
}

char32_t lowerCasedCharacter(char32_t character) {
  // Every system's own; where it is missing, letters beyond ASCII stay as they are.
  static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (unicode == nullptr) return character;
  return static_cast<char32_t>(towlower_l(static_cast<wint_t>(character), unicode));
}

}  // namespace

bool isASCII(std::string_view text) {
  uint64_t word = 0;
  while (text.size() >= sizeof word) {
    std::memcpy(&word, text.data(), sizeof word);
    if ((word & kHighBits) != 0) return false;
    text.remove_prefix(sizeof word);
  }
  word = 0;
  if (!text.empty()) std::memcpy(&word, text.data(), text.size());
  return (word & kHighBits) == 0;
}

bool equalsIgnoringASCIICase(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), isSameASCIILetter);
}

std::string_view trimmed(std::string_view text, std::string_view blanks) {
  const size_t start = text.find_first_not_of(blanks);
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

std::string lowerCased(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const size_t length = characterLength(text);
    if (length <= 1) {
      out += lowerCasedASCII(text.front());
    } else {
      appendUTF8(out, lowerCasedCharacter(characterAt(text, length)));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

size_t validUTF8Prefix(std::string_view text) {
  size_t position = 0;
  while (position < text.size()) {
    // Nearly all text is ASCII: eight bytes at a time.
    uint64_t word = 0;
    if (position + sizeof word <= text.size()) {
      std::memcpy(&word, text.data() + position, sizeof word);
      if ((word & kHighBits) == 0) {
        position += sizeof word;
        continue;
      }
    }
    const size_t length = characterLength(text.substr(position));
    if (length == 0) return position;
    position += length;
  }
  return position;
}

std::string replacingInvalidUTF8(std::string_view text) {
  std::string out;
  while (true) {
    const size_t valid = validUTF8Prefix(text);
    out += text.substr(0, valid);
    if (valid == text.size()) return out;
    out += kReplacement;
    text.remove_prefix(valid + 1);
  }
}

void appendUTF8(std::string& out, char32_t character) {
  const auto append = [&out](char32_t byte) { out += static_cast<char>(byte); };
  if (character < 0x80) {
    append(character);
  } else if (character < 0x800) {
    append(0xC0 | character >> 6);
    append(0x80 | (character & 0x3F));
  } else if (character < 0x10000) {
    append(0xE0 | character >> 12);
    append(0x80 | (character >> 6 & 0x3F));
    append(0x80 | (character & 0x3F));
  } else {
    append(0xF0 | character >> 18);
    append(0x80 | (character >> 12 & 0x3F));
    append(0x80 | (character >> 6 & 0x3F));
    append(0x80 | (character & 0x3F));
  }
}

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  if (part.empty()) return false;
  if (!isASCII(part)) return lowerCased(text).find(lowerCased(part)) != std::string::npos;
  return std::search(text.begin(), text.end(), part.begin(), part.end(), isSameASCIILetter) != text.end();
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
  if (equalsIgnoringASCIICase(left, right)) return true;
  return !isASCII(left) && !isASCII(right) && lowerCased(left) == lowerCased(right);
}

void cutLongText(std::string& text, size_t maximumBytes) {
  const size_t length = text.size();
  if (length <= maximumBytes) return;
  size_t end = maximumBytes;
  while (end > 0 && end + 3 > maximumBytes && isContinuation(static_cast<unsigned char>(text[end]))) --end;
  text.resize(end);
  fmt::format_to(std::back_inserter(text), "... ({} bytes)", length);
}

}  // namespace zun
