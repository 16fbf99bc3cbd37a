#include "values/URLText.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "values/UTF8.h"

namespace zun {

namespace {

bool isAlphanumeric(char character) {
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
         (character >= 'A' && character <= 'Z');
}

int hexDigit(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

bool isControlOrBlank(char character) {
  return static_cast<unsigned char>(character) <= 0x20 || character == 0x7F;
}

/// What follows `scheme` and "://"; none for a URL of another scheme.
std::optional<std::string_view> afterScheme(std::string_view url, std::string_view scheme) {
  constexpr std::string_view kSeparator = "://";
  const bool isOfScheme = equalsIgnoringASCIICase(url.substr(0, scheme.size()), scheme);
  if (!isOfScheme || !url.substr(scheme.size()).starts_with(kSeparator)) return std::nullopt;
  return url.substr(scheme.size() + kSeparator.size());
}

}  // namespace

std::string percentEncoded(std::string_view text, std::string_view plain) {
  std::string out;
  out.reserve(text.size());
  for (const char character : text) {
    if (isAlphanumeric(character) || plain.find(character) != std::string_view::npos) {
      out += character;
    } else {
      fmt::format_to(std::back_inserter(out), "%{:02X}", static_cast<unsigned char>(character));
    }
  }
  return out;
}

std::string percentEncodedForQuery(std::string_view text) {
  return percentEncoded(text, "-._~!$&'()*+,;=:@/?");
}

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    char character = text[i];
    if (character == '%') {
      if (text.size() - i < 3 || hexDigit(text[i + 1]) < 0 || hexDigit(text[i + 2]) < 0) return std::nullopt;
      character = static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
      i += 2;
    }
    if (character == '\0') return std::nullopt;
    out += character;
  }
  return out;
}

bool isHTTPURL(std::string_view url) {
  if (std::any_of(url.begin(), url.end(), isControlOrBlank)) return false;
  std::optional<std::string_view> rest = afterScheme(url, "https");
  if (!rest) rest = afterScheme(url, "http");
  if (!rest) return false;
  std::string_view host = rest->substr(0, rest->find_first_of("/?#"));
  if (const size_t user = host.rfind('@'); user != std::string_view::npos) host.remove_prefix(user + 1);
  return !host.empty() && host.front() != ':';
}

}  // namespace zun
