#include <fmt/format.h>

#include <bit>
#include <chrono>
#include <cmath>
#include <string>
#include <unordered_map>
#include <vector>

#include "values/Base64.h"
#include "values/PropertyListForms.h"
#include "values/SeededHash.h"
#include "values/UTF8.h"

namespace zun {

namespace {

void appendBigEndian(std::string& out, uint64_t number, size_t width) {
  for (size_t i = width; i-- > 0;) out += static_cast<char>(number >> (8 * i));
}

size_t bytesNeeded(uint64_t number) {
  size_t width = 1;
  while (width < 8 && number >> (8 * width) != 0) width *= 2;
  return width;
}

/// Big-endian UTF-16 of valid UTF-8.
std::string utf16OfText(std::string_view text) {
  std::string out;
  size_t position = 0;
  while (position < text.size()) {
    const auto first = static_cast<unsigned char>(text[position]);
    const size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    char32_t character = length == 1 ? first : first & (0xFF >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
      character = character << 6 | (static_cast<unsigned char>(text[position + i]) & 0x3F);
    }
    position += length;
    if (character < 0x10000) {
      appendBigEndian(out, character, 2);
    } else {
      appendBigEndian(out, 0xD800 + ((character - 0x10000) >> 10), 2);
      appendBigEndian(out, 0xDC00 + (character & 0x3FF), 2);
    }
  }
  return out;
}

/// Writes the binary form in two steps: number every object, then write them in the
/// order of their numbers with an offset each.
class BinaryWriter final {
 public:
  std::string write(const Value& value) {
    number(value, 0);
    referenceWidth_ = bytesNeeded(objects_.size());
    out_ = "bplist00";
    std::vector<uint64_t> offsets;
    offsets.reserve(objects_.size());
    for (const Object& object : objects_) {
      offsets.push_back(out_.size());
      append(object);
    }
    const uint64_t table = out_.size();
    const size_t offsetWidth = bytesNeeded(table);
    for (const uint64_t offset : offsets) appendBigEndian(out_, offset, offsetWidth);
    out_.append(6, '\0');
    out_ += static_cast<char>(offsetWidth);
    out_ += static_cast<char>(referenceWidth_);
    appendBigEndian(out_, objects_.size(), 8);
    appendBigEndian(out_, 0, 8);  // the top object
    appendBigEndian(out_, table, 8);
    return std::move(out_);
  }

 private:
  struct Object {
    const Value* value;
    std::vector<uint64_t> references;  // of a container; a dictionary's keys come first
  };

  uint64_t number(const Value& value, int depth) {
    const auto next = static_cast<uint64_t>(objects_.size());
    if (value.isString()) {
      const auto [known, isNew] = strings_.try_emplace(value.stringValue(), next);
      if (!isNew) return known->second;
    }
    const bool isTooDeep = depth >= kDeepestWritten && (value.isArray() || value.isDictionary());
    objects_.push_back({isTooDeep ? &Value::none() : &value, {}});
    if (isTooDeep) return next;
    std::vector<uint64_t> references;
    if (const Array* const array = value.array()) {
      references.reserve(array->size());
      for (const Value& element : *array) references.push_back(number(element, depth + 1));
    } else if (const Dictionary* const dictionary = value.dictionary()) {
      references.reserve(dictionary->size() * 2);
      for (const auto& [key, entry] : *dictionary) references.push_back(number(key, depth + 1));
      for (const auto& [key, entry] : *dictionary) references.push_back(number(entry, depth + 1));
    }
    objects_[next].references = std::move(references);
    return next;
  }

  void append(const Object& object) {
    const Value& value = *object.value;
    if (value.isBoolean()) {
      out_ += value.boolValue() ? '\x09' : '\x08';
    } else if (value.isInteger()) {
      appendInteger(value);
    } else if (value.isReal()) {
      out_ += '\x23';
      appendBigEndian(out_, std::bit_cast<uint64_t>(value.doubleValue()), 8);
    } else if (const auto date = value.date()) {
      out_ += '\x33';
      appendBigEndian(out_, std::bit_cast<uint64_t>(date->secondsSince1970 - kSecondsTo2001), 8);
    } else if (value.isString()) {
      appendString(value.stringValue());
    } else if (value.isData()) {
      appendMarker(0x4, value.dataValue().size());
      out_ += value.dataValue();
    } else if (value.isArray()) {
      appendMarker(0xA, object.references.size());
      appendReferences(object);
    } else if (value.isDictionary()) {
      appendMarker(0xD, object.references.size() / 2);
      appendReferences(object);
    } else {
      out_ += '\x00';
    }
  }

  /// Eight bytes are signed, so what is above them takes sixteen.
  void appendInteger(const Value& value) {
    const auto number = static_cast<uint64_t>(value.intValue());
    if (value.isAboveInt64()) {
      out_ += '\x14';
      appendBigEndian(out_, 0, 8);
      appendBigEndian(out_, number, 8);
      return;
    }
    const size_t width = bytesNeeded(number);
    out_ += static_cast<char>(0x10 | std::countr_zero(width));
    appendBigEndian(out_, number, width);
  }

  void appendString(std::string_view text) {
    if (isASCII(text)) {
      appendMarker(0x5, text.size());
      out_ += text;
      return;
    }
    const std::string units = utf16OfText(isValidUTF8(text) ? std::string(text) : replacingInvalidUTF8(text));
    appendMarker(0x6, units.size() / 2);
    out_ += units;
  }

  void appendMarker(unsigned type, uint64_t count) {
    if (count < 0xF) {
      out_ += static_cast<char>(type << 4 | count);
      return;
    }
    const size_t width = bytesNeeded(count);
    out_ += static_cast<char>(type << 4 | 0xF);
    out_ += static_cast<char>(0x10 | std::countr_zero(width));
    appendBigEndian(out_, count, width);
  }

  void appendReferences(const Object& object) {
    for (const uint64_t reference : object.references) appendBigEndian(out_, reference, referenceWidth_);
  }

  std::vector<Object> objects_;
  std::unordered_map<std::string_view, uint64_t, SeededHash> strings_;
  size_t referenceWidth_ = 1;
  std::string out_;
};

/// Text of an XML document: what XML cannot hold is replaced, what it would change
/// (a carriage return) is escaped.
void appendEscaped(std::string& out, std::string_view text) {
  const std::string valid = isValidUTF8(text) ? std::string(text) : replacingInvalidUTF8(text);
  for (size_t i = 0; i < valid.size(); ++i) {
    const char character = valid[i];
    const bool isNoncharacter = valid.compare(i, 2, "\xEF\xBF") == 0 && i + 2 < valid.size() &&
                                static_cast<unsigned char>(valid[i + 2]) >= 0xBE;
    if (character == '&') {
      out += "&amp;";
    } else if (character == '<') {
      out += "&lt;";
    } else if (character == '>') {
      out += "&gt;";
    } else if (character == '\r') {
      out += "&#13;";
    } else if (isNoncharacter) {
      out += "\xEF\xBF\xBD";
      i += 2;
    } else if (static_cast<unsigned char>(character) < 0x20 && character != '\t' && character != '\n') {
      out += "\xEF\xBF\xBD";
    } else {
      out += character;
    }
  }
}

/// Whole seconds, within the years that the form has digits for.
std::string dateText(Date date) {
  constexpr double kFirst = -62167219200;  // 0000-01-01
  constexpr double kLast = 253402300799;   // 9999-12-31 23:59:59
  const double seconds = std::isnan(date.secondsSince1970) ? 0 : date.secondsSince1970;
  const auto time = std::chrono::sys_seconds(
      std::chrono::seconds(static_cast<int64_t>(std::floor(std::clamp(seconds, kFirst, kLast)))));
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day calendar(day);
  const std::chrono::hh_mm_ss clock(time - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(calendar.year()),
                     static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

void appendElement(std::string& out, std::string_view name, std::string_view text) {
  fmt::format_to(std::back_inserter(out), "<{0}>{1}</{0}>\n", name, text);
}

void appendXML(std::string& out, const Value& value, int depth);

void appendContainer(std::string& out, const Value& value, int depth) {
  const std::string_view name = value.isArray() ? "array" : "dict";
  const auto indent = static_cast<size_t>(depth);
  const size_t count = value.isArray() ? value.array()->size() : value.dictionary()->size();
  if (count == 0 || depth >= kDeepestWritten) {
    fmt::format_to(std::back_inserter(out), "<{}/>\n", name);
    return;
  }
  fmt::format_to(std::back_inserter(out), "<{}>\n", name);
  if (const Array* const array = value.array()) {
    for (const Value& element : *array) appendXML(out, element, depth + 1);
  } else {
    for (const auto& [key, entry] : *value.dictionary()) {
      out.append(indent + 1, '\t');
      out += "<key>";
      appendEscaped(out, key.stringValue());
      out += "</key>\n";
      appendXML(out, entry, depth + 1);
    }
  }
  out.append(indent, '\t');
  fmt::format_to(std::back_inserter(out), "</{}>\n", name);
}

void appendXML(std::string& out, const Value& value, int depth) {
  if (value.isNone()) return;
  out.append(static_cast<size_t>(depth), '\t');
  if (value.isArray() || value.isDictionary()) {
    appendContainer(out, value, depth);
  } else if (value.isBoolean()) {
    out += value.boolValue() ? "<true/>\n" : "<false/>\n";
  } else if (value.isInteger()) {
    appendElement(out, "integer", value.description());
  } else if (value.isReal()) {
    appendElement(out, "real", fmt::format("{}", value.doubleValue()));
  } else if (const auto date = value.date()) {
    appendElement(out, "date", dateText(*date));
  } else if (value.isData()) {
    appendElement(out, "data", base64Encode(value.dataValue()));
  } else {
    out += "<string>";
    appendEscaped(out, value.stringValue());
    out += "</string>\n";
  }
}

}  // namespace

std::string serializeBinaryPropertyList(const Value& value) {
  return BinaryWriter().write(value);
}

std::string serializeXMLPropertyList(const Value& value) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
  appendXML(out, value, 0);
  out += "</plist>\n";
  return out;
}

}  // namespace zun
