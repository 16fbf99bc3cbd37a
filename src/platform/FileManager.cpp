#include "platform/FileManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace zun {

namespace {

constexpr std::string_view kScheme = "file:";

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

bool equalIgnoringCase(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char one, char other) {
    return std::tolower(static_cast<unsigned char>(one)) == std::tolower(static_cast<unsigned char>(other));
  });
}

/// None for a broken escape or one of a NUL.
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

}  // namespace

std::string FileAttributes::description() const {
  return fmt::format("{{size = {}; modificationDate = {:.6f}; creationDate = {}; isDirectory = {}}}", size,
                     modificationDate.secondsSince1970,
                     creationDate ? fmt::format("{:.6f}", creationDate->secondsSince1970) : "(null)",
                     isDirectory);
}

std::string fileURLOfPath(std::string_view path) {
  constexpr std::string_view kPlain = "/-._~!$&'()*+,=:@";
  std::string url = "file://";
  if (!path.starts_with('/')) url += '/';
  for (const char character : path) {
    if (isAlphanumeric(character) || kPlain.find(character) != std::string_view::npos) {
      url += character;
    } else {
      url += fmt::format("%{:02X}", static_cast<unsigned char>(character));
    }
  }
  return url;
}

std::optional<std::string> pathOfFileURL(std::string_view url) {
  if (!equalIgnoringCase(url.substr(0, kScheme.size()), kScheme)) return std::nullopt;
  std::string_view rest = url.substr(kScheme.size());
  rest = rest.substr(0, rest.find_first_of("?#"));
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const std::string_view host = rest.substr(0, rest.find('/'));
    if (!host.empty() && !equalIgnoringCase(host, "localhost")) return std::nullopt;
    rest.remove_prefix(host.size());
  }
  if (!rest.starts_with('/')) return std::nullopt;
  return percentDecoded(rest);
}

}  // namespace zun
