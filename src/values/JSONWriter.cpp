#include "values/JSONWriter.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "values/UTF8.h"

namespace zun {

namespace {

/// What is nested deeper becomes null: no reader of ours accepts it, and the stack of
/// a client's thread is small.
constexpr int kDeepestWritten = 128;

constexpr uint64_t everyByte(uint8_t byte) {
  return 0x0101010101010101ULL * byte;
}

/// What the bytes of a text ask of its writer, in the high bit of any byte.
struct Findings {
  uint64_t escapes = 0;  // a quote, a backslash or a control character; may see some that are none
  uint64_t nonASCII = 0;

  void add(uint64_t word) {
    const auto zeroBytes = [](uint64_t bytes) { return (bytes - everyByte(1)) & ~bytes; };
    escapes |= zeroBytes(word ^ everyByte('"')) | zeroBytes(word ^ everyByte('\\')) |
               ((word - everyByte(0x20)) & ~word);
    nonASCII |= word;
  }
  bool hasEscapes() const { return (escapes & everyByte(0x80)) != 0; }
  bool hasNonASCII() const { return (nonASCII & everyByte(0x80)) != 0; }
};

Findings scan(std::string_view text) {
  Findings findings;
  uint64_t word = 0;
  if (text.size() < sizeof word) {
    word = everyByte(' ');
    std::memcpy(&word, text.data(), text.size());
    findings.add(word);
    return findings;
  }
  for (size_t offset = 0; offset + sizeof word <= text.size(); offset += sizeof word) {
    std::memcpy(&word, text.data() + offset, sizeof word);
    findings.add(word);
  }
  std::memcpy(&word, text.data() + text.size() - sizeof word, sizeof word);
  findings.add(word);
  return findings;
}

/// Memory that is there or throws: RapidJSON writes on where its own has no more.
class CheckingAllocator final {
 public:
  [[maybe_unused]] static constexpr bool kNeedFree = true;

  static void* Malloc(size_t size) { return size == 0 ? nullptr : checked(std::malloc(size)); }
  static void* Realloc(void* block, size_t /*originalSize*/, size_t size) {
    return checked(std::realloc(block, size));
  }
  static void Free(void* block) { std::free(block); }

 private:
  static void* checked(void* block) {
    if (block == nullptr) throw std::bad_alloc();
    return block;
  }
};

using Buffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, CheckingAllocator>;

/// RapidJSON's writers, with a way past their work by the byte for strings that
/// stand in JSON as they are: nearly all, and most of a record.
class CompactWriter final
    : public rapidjson::Writer<Buffer, rapidjson::UTF8<>, rapidjson::UTF8<>, CheckingAllocator> {
 public:
  using Writer::Writer;
  void beginString() { Prefix(rapidjson::kStringType); }
  Buffer& buffer() { return *os_; }
};

class IndentingWriter final
    : public rapidjson::PrettyWriter<Buffer, rapidjson::UTF8<>, rapidjson::UTF8<>, CheckingAllocator> {
 public:
  using PrettyWriter::PrettyWriter;
  void beginString() { PrettyPrefix(rapidjson::kStringType); }
  Buffer& buffer() { return *os_; }
};

template <typename Writer>
void writeString(Writer& writer, std::string_view text) {
  const Findings findings = scan(text);
  const bool isValid = !findings.hasNonASCII() || isValidUTF8(text);
  if (isValid && !findings.hasEscapes()) [[likely]] {
    writer.beginString();
    char* const place = writer.buffer().Push(text.size() + 2);
    place[0] = '"';
    std::memcpy(place + 1, text.data(), text.size());
    place[text.size() + 1] = '"';
    return;
  }
  const std::string valid = isValid ? std::string(text) : replacingInvalidUTF8(text);
  writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

template <typename Writer>
void writeNumber(Writer& writer, const Value& value) {
  if (value.isAboveInt64()) {
    writer.Uint64(static_cast<uint64_t>(value.intValue()));
  } else if (value.isInteger()) {
    writer.Int64(value.intValue());
  } else if (const double number = value.doubleValue(); std::isfinite(number)) {
    writer.Double(number);
  } else {
    writer.Null();
  }
}

template <typename Writer>
void writeValue(Writer& writer, const Value& value, int depth) {
  if (value.isString()) {
    writeString(writer, value.stringValue());
  } else if (value.isBoolean()) {
    writer.Bool(value.boolValue());
  } else if (value.isNumber()) {
    writeNumber(writer, value);
  } else if (depth >= kDeepestWritten) {
    writer.Null();
  } else if (const Dictionary* const dictionary = value.dictionary()) {
    writer.StartObject();
    for (const auto& [key, entry] : *dictionary) {
      writeString(writer, key.stringValue());
      writeValue(writer, entry, depth + 1);
    }
    writer.EndObject();
  } else if (const Array* const array = value.array()) {
    writer.StartArray();
    for (const Value& element : *array) writeValue(writer, element, depth + 1);
    writer.EndArray();
  } else {
    writer.Null();
  }
}

}  // namespace

std::string writeJSON(const Value& value, JSONFormat format) {
  Buffer buffer(nullptr, 2048);
  if (format == JSONFormat::kPretty) {
    IndentingWriter writer(buffer);
    writer.SetIndent(' ', 2);
    writeValue(writer, value, 0);
  } else {
    CompactWriter writer(buffer);
    writeValue(writer, value, 0);
  }
  return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace zun
