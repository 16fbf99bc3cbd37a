#include "platform/JSONWriter.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <string_view>

#include "platform/UTF8.h"

namespace zun {

namespace {

/// What is nested deeper becomes null: no reader of ours accepts it, and the stack of
/// a client's thread is small.
constexpr int kDeepestWritten = 128;

template <typename Writer>
void writeString(Writer& writer, std::string_view text) {
  if (isValidUTF8(text)) [[likely]] {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    return;
  }
  const std::string valid = replacingInvalidUTF8(text);
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
  rapidjson::StringBuffer buffer(nullptr, 2048);
  if (format == JSONFormat::kPretty) {
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    writeValue(writer, value, 0);
  } else {
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writeValue(writer, value, 0);
  }
  return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace zun
