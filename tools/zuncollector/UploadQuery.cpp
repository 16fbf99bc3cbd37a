#include "UploadQuery.h"

#include <charconv>
#include <map>
#include <optional>

#include "values/UTF8.h"

namespace zun {

namespace {

constexpr size_t kLongestFileName = 100;

std::optional<uint8_t> byteOf(std::string_view twoDigits) {
  uint8_t value = 0;
  const char* const end = twoDigits.data() + twoDigits.size();
  const auto [stop, error] = std::from_chars(twoDigits.data(), end, value, 16);
  if (twoDigits.size() != 2 || stop != end || error != std::errc()) return std::nullopt;
  return value;
}

std::string percentDecoded(std::string_view text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = text[i] == '%' ? byteOf(text.substr(i + 1, 2)) : std::nullopt;
    plain += byte ? static_cast<char>(*byte) : text[i];
    if (byte) i += 2;
  }
  return plain;
}

/// The first value of each name.
std::map<std::string, std::string, std::less<>> parametersOf(std::string_view target) {
  std::map<std::string, std::string, std::less<>> parameters;
  const size_t mark = target.find('?');
  std::string_view rest = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
  while (!rest.empty()) {
    const std::string_view pair = rest.substr(0, rest.find('&'));
    rest.remove_prefix(std::min(rest.size(), pair.size() + 1));
    const size_t equals = pair.find('=');
    const std::string_view value = equals == std::string_view::npos ? "" : pair.substr(equals + 1);
    parameters.emplace(percentDecoded(pair.substr(0, equals)), replacingInvalidUTF8(percentDecoded(value)));
  }
  return parameters;
}

bool isPlain(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '-' || character == '_' || character == '.';
}

}  // namespace

Result<UploadQuery, std::string> UploadQuery::parse(std::string_view target) {
  using Parsed = Result<UploadQuery, std::string>;
  auto parameters = parametersOf(target);
  UploadQuery query;
  query.uuid = parameters["uuid"];
  query.description = parameters["description"];
  query.fileName = parameters["filename"];
  query.isRaw = parameters["raw"] == "true";
  if (query.uuid.empty()) return Parsed::failure("\"uuid\" is missing");
  if (query.fileName.empty()) return Parsed::failure("\"filename\" is missing");
  const std::string& sequence = parameters["sequence"];
  const char* const end = sequence.data() + sequence.size();
  const auto [stop, error] = std::from_chars(sequence.data(), end, query.sequence);
  if (stop != end || error != std::errc()) return Parsed::failure("\"sequence\" is no number of 32 bits");
  return query;
}

std::string safeFileName(std::string_view name) {
  name.remove_prefix(name.rfind('/') + 1);  // none found: npos + 1 is 0
  std::string safe(name.substr(0, kLongestFileName));
  for (char& character : safe) {
    if (!isPlain(character)) character = '_';
  }
  if (safe.empty()) return "unnamed";
  if (safe.front() == '.') safe.front() = '_';
  return safe;
}

}  // namespace zun
