#include "StorebagSource.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "values/Base64.h"
#include "values/JSONReader.h"
#include "values/PropertyList.h"

namespace zun {

namespace {

constexpr size_t kMaximumBytes = size_t{16} << 20;

bool isPlaceholderCharacter(char character) {
  return (character >= 'A' && character <= 'Z') || (character >= '0' && character <= '9') || character == '_';
}

// The name of a placeholder that begins at `text`'s front, or none.
std::optional<std::string_view> placeholderAtFront(std::string_view text) {
  if (text.size() < 3 || text[0] != '@') return std::nullopt;
  size_t end = 1;
  while (end < text.size() && isPlaceholderCharacter(text[end])) ++end;
  if (end == 1 || end == text.size() || text[end] != '@') return std::nullopt;
  return text.substr(1, end - 1);
}

Result<Value, std::string> replaceInText(std::string_view text, const Definitions& definitions) {
  std::string replaced;
  while (!text.empty()) {
    const auto name = placeholderAtFront(text);
    if (!name) {
      replaced += text.front();
      text.remove_prefix(1);
      continue;
    }
    const auto found = std::find_if(definitions.begin(), definitions.end(),
                                    [&name](const auto& definition) { return definition.first == *name; });
    if (found == definitions.end()) {
      return Result<Value, std::string>::failure(
          fmt::format("placeholder @{0}@ has no value: give it with --define {0}=VALUE", *name));
    }
    replaced += found->second;
    text.remove_prefix(name->size() + 2);
  }
  return Value(replaced);
}

}  // namespace

Result<std::string, std::string> readInput(const std::string& path) {
  using Outcome = Result<std::string, std::string>;
  const auto close = [](std::FILE* file) {
    if (file != stdin) std::fclose(file);
  };
  const std::unique_ptr<std::FILE, decltype(close)> file(
      path == "-" ? stdin : std::fopen(path.c_str(), "rbe"), close);
  if (!file) return Outcome::failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  std::string bytes;
  std::string chunk(65536, '\0');
  while (const size_t count = std::fread(chunk.data(), 1, chunk.size(), file.get())) {
    bytes.append(chunk, 0, count);
    if (bytes.size() > kMaximumBytes) return Outcome::failure(path + " is larger than 16 MiB");
  }
  if (std::ferror(file.get()) != 0) {
    return Outcome::failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  return bytes;
}

Result<Value, std::string> parseSource(std::string_view bytes) {
  const size_t start = bytes.find_first_not_of(" \t\r\n");
  if (start != std::string_view::npos && (bytes[start] == '{' || bytes[start] == '['))
    return parseJSON(bytes);
  return parsePropertyList(bytes);
}

Result<Value, std::string> replacePlaceholders(const Value& source, const Definitions& definitions) {
  if (const Dictionary* dictionary = source.dictionary()) {
    Dictionary replaced;
    for (const auto& [key, value] : *dictionary) {
      auto element = replacePlaceholders(value, definitions);
      if (!element) return element;
      replaced.set(key, std::move(*element));
    }
    return Value(replaced);
  }
  if (const Array* array = source.array()) {
    Array replaced;
    for (const Value& value : *array) {
      auto element = replacePlaceholders(value, definitions);
      if (!element) return element;
      replaced.append(std::move(*element));
    }
    return Value(replaced);
  }
  return source.isString() ? replaceInText(source.stringValue(), definitions) : source;
}

bool isEnvelope(const Value& value) {
  const Dictionary* fields = value.dictionary();
  return fields != nullptr && fields->contains("signature") && fields->contains("bag");
}

Result<Envelope, std::string> decodeEnvelope(const Value& value) {
  using Outcome = Result<Envelope, std::string>;
  const Dictionary* fields = value.dictionary();
  if (fields == nullptr) return Outcome::failure("not an envelope: the top level is no dictionary");
  Envelope envelope;
  for (const auto& [key, part] : {std::pair("signature", &envelope.signature), {"bag", &envelope.bag}}) {
    const Value& text = (*fields)[key];
    if (!text.isString()) return Outcome::failure(fmt::format("not an envelope: no string \"{}\"", key));
    auto decoded = base64Decode(text.stringValue());
    if (!decoded) return Outcome::failure(fmt::format("\"{}\" is not Base64", key));
    *part = *std::move(decoded);
  }
  return envelope;
}

}  // namespace zun
