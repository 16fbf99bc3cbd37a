#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zun {

/// Bytes at the start of `text` that are well-formed UTF-8 (no overlong forms, no
/// surrogates, nothing above U+10FFFF). Any thread.
[[nodiscard]] size_t validUTF8Prefix(std::string_view text);

[[nodiscard]] inline bool isValidUTF8(std::string_view text) {
  return validUTF8Prefix(text) == text.size();
}

/// `text` with U+FFFD in the place of each byte that belongs to no character.
[[nodiscard]] std::string replacingInvalidUTF8(std::string_view text);

[[nodiscard]] bool isASCII(std::string_view text);

/// An ASCII letter in lower case; any other byte as it is.
[[nodiscard]] constexpr char lowerCasedASCII(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

/// True for texts that differ in the letter case of ASCII letters at most.
[[nodiscard]] bool equalsIgnoringASCIICase(std::string_view left, std::string_view right);

/// `text` without the characters of `blanks` at its ends.
[[nodiscard]] std::string_view trimmed(std::string_view text, std::string_view blanks = " \t\r\n");

/// `text` with each letter in lower case, whatever the process's locale. Bytes that
/// belong to no character stay. Any thread.
[[nodiscard]] std::string lowerCased(std::string_view text);

/// True where `text` contains `part`, letter case ignored. An empty part is contained
/// in nothing.
[[nodiscard]] bool containsIgnoringCase(std::string_view text, std::string_view part);
[[nodiscard]] bool equalsIgnoringCase(std::string_view left, std::string_view right);

/// Text beyond so many bytes is cut, between characters, and ends with its former length.
void cutLongText(std::string& text, size_t maximumBytes);

/// Appends the UTF-8 form of a code point that is a Unicode scalar value.
void appendUTF8(std::string& out, char32_t character);

}  // namespace zun
