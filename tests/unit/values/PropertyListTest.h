#pragma once

#include <gtest/gtest.h>

#include <limits>

#include "values/PropertyList.h"

namespace zun {

inline std::string failureOf(std::string_view bytes, const PropertyListLimits& limits = {}) {
  const auto value = parsePropertyList(bytes, limits);
  return value ? "" : value.error();
}

inline Value valueOf(std::string_view bytes) {
  const auto value = parsePropertyList(bytes);
  EXPECT_TRUE(value) << value.error();
  return value ? *value : Value();
}

inline Value valueOfXML(const std::string& element) {
  return valueOf("<plist version=\"1.0\">" + element + "</plist>");
}

inline std::string failureOfXML(const std::string& element) {
  return failureOf("<plist version=\"1.0\">" + element + "</plist>");
}

inline std::string keysOf(const Value& value) {
  std::string keys;
  for (const auto& [key, entry] : *value.dictionary()) keys += std::string(key.stringValue()) + ",";
  return keys;
}

inline std::string bigEndian(uint64_t number, size_t width) {
  std::string bytes;
  for (size_t i = width; i-- > 0;) bytes += static_cast<char>(i < 8 ? number >> (8 * i) : 0);
  return bytes;
}

/// Puts a binary property list together, object by object, right or wrong.
struct BinaryFile {
  std::vector<std::string> objects;
  size_t offsetWidth = 4;
  size_t referenceWidth = 2;
  std::optional<uint64_t> count = std::nullopt;
  uint64_t top = 0;
  std::optional<uint64_t> table = std::nullopt;
  std::vector<uint64_t> offsets = {};  // instead of the objects' own

  std::string references(const std::vector<uint64_t>& indices) const {
    std::string bytes;
    for (const uint64_t index : indices) bytes += bigEndian(index, referenceWidth);
    return bytes;
  }
  std::string array(const std::vector<uint64_t>& indices) const {
    return "\xAF\x12" + bigEndian(indices.size(), 4) + references(indices);
  }
  std::string dictionary(const std::vector<uint64_t>& keysThenValues) const {
    return "\xDF\x12" + bigEndian(keysThenValues.size() / 2, 4) + references(keysThenValues);
  }
  std::string bytes() const {
    std::string out = "bplist00";
    std::vector<uint64_t> places = offsets;
    for (const std::string& object : objects) {
      if (offsets.empty()) places.push_back(out.size());
      out += object;
    }
    const size_t tableAt = out.size();
    for (const uint64_t place : places) out += bigEndian(place, offsetWidth);
    out += std::string(6, '\0');
    out += static_cast<char>(offsetWidth);
    out += static_cast<char>(referenceWidth);
    out += bigEndian(count.value_or(places.size()), 8) + bigEndian(top, 8) +
           bigEndian(table.value_or(tableAt), 8);
    return out;
  }
};

inline Value valueOfObject(const std::string& object) {
  return valueOf(BinaryFile{.objects = {object}}.bytes());
}

inline std::string failureOfObject(const std::string& object) {
  return failureOf(BinaryFile{.objects = {object}}.bytes());
}

inline std::string object(std::string_view marker, std::string_view content = {}) {
  return std::string(marker) + std::string(content);
}

inline Value everyKind() {
  return Dictionary{{"z", "last letter first"},
                    {"text", "Größe 日本 😀 <&> \r\n\t \"'"},
                    {"", "empty key"},
                    {"empty", ""},
                    {"int", Array{0, 1, -1, 127, 128, 255, 256, 65535, 65536, -128, 4294967295, 4294967296,
                                  std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(),
                                  std::numeric_limits<uint64_t>::max()}},
                    {"real", Array{0.1, -1e300, 5e-324, 1.0 / 3}},
                    {"yes", true},
                    {"no", false},
                    {"date", Date{1700000000}},
                    {"old", Date{-1e9}},
                    {"data", Value::data(std::string("\x00\x01\xff", 3))},
                    {"long", std::string(70000, 'x')},
                    {"nested", Dictionary{{"list", Array{Array{}, Dictionary{}}}}}};
}

}  // namespace zun
