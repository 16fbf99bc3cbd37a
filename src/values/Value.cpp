#include "values/Value.h"

#include <malloc.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>

#include "values/ValueStorage.h"

namespace zun {

using namespace detail;

namespace {

int64_t leadingInteger(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return 0;
  text.remove_prefix(start);
  const bool negative = text.front() == '-';
  if (negative || text.front() == '+') text.remove_prefix(1);
  uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  if (error == std::errc::invalid_argument) return 0;
  constexpr auto kLimit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  if (error == std::errc::result_out_of_range || magnitude > kLimit) {
    return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
}

double leadingReal(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return 0;
  text.remove_prefix(start);
  const bool negative = text.front() == '-';
  const std::string_view digits = negative || text.front() == '+' ? text.substr(1) : text;
  // A number begins with a digit or a point: "nan" and "infinity" are words here.
  if (digits.empty() || (digits.front() != '.' && (digits.front() < '0' || digits.front() > '9'))) return 0;
  double number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error == std::errc::invalid_argument) return 0;
  if (error == std::errc::result_out_of_range) {
    // Too large or too small? This one tells, with infinity or 0.
    number = std::strtod(std::string(digits.data(), end).c_str(), nullptr);
  }
  return negative ? -number : number;
}

bool booleanOfText(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return false;
  text.remove_prefix(start);
  if (text.front() == '-' || text.front() == '+') text.remove_prefix(1);
  const size_t significant = text.find_first_not_of('0');
  if (significant == std::string_view::npos) return false;
  const char first = text[significant];
  return std::string_view("YyTt").find(first) != std::string_view::npos || (first >= '1' && first <= '9');
}

int64_t integerOfReal(double real) {
  if (std::isnan(real)) return 0;
  if (real >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (real <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(real);
}

/// Text of one line: control characters are escaped.
void appendLine(std::string& out, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
    }
  }
}

void appendHex(std::string& out, std::string_view bytes) {
  constexpr size_t kShown = 32;
  out += '<';
  for (const char byte : bytes.substr(0, kShown)) {
    fmt::format_to(std::back_inserter(out), "{:02x}", static_cast<unsigned char>(byte));
  }
  if (bytes.size() > kShown) fmt::format_to(std::back_inserter(out), "... {} bytes", bytes.size());
  out += '>';
}

}  // namespace

Value::Value(const Value& other) noexcept {
  std::memcpy(static_cast<void*>(this), &other, sizeof(Value));
  switch (wide_.tag) {
    case Tag::kString:
    case Tag::kData: retain(wide_.as.bytes); break;
    case Tag::kArray: retain(wide_.as.array.storage_); break;
    case Tag::kDictionary: retain(wide_.as.dictionary.storage_); break;
    default: break;
  }
}

Value& Value::operator=(Value&& other) noexcept {
  if (this == &other) return *this;
  Value former;
  former.takeFrom(*this);  // ends after this value holds its new content
  takeFrom(other);
  return *this;
}

Value::Value(std::string_view text) : Value() {
  if (text.size() > kInlineCapacity) {
    *this = bytes(Tag::kString, text);
    return;
  }
  inline_ = {Tag::kInlineString, static_cast<uint8_t>(text.size()), {}};
  if (!text.empty()) std::memcpy(inline_.text, text.data(), text.size());
}

Value::Value(Array array) noexcept : Value() {
  wide_.tag = Tag::kArray;
  new (&wide_.as.array) Array(std::move(array));
}

Value::Value(Dictionary dictionary) noexcept : Value() {
  wide_.tag = Tag::kDictionary;
  new (&wide_.as.dictionary) Dictionary(std::move(dictionary));
}

Value Value::literal(std::string_view staticText) noexcept {
  if (staticText.size() <= kInlineCapacity) return Value(staticText);
  Value value;
  value.wide_.tag = Tag::kLiteral;
  value.wide_.length = static_cast<uint32_t>(staticText.size());
  value.wide_.as.literal = staticText.data();
  return value;
}

Value Value::data(std::string_view content) {
  return bytes(Tag::kData, content);
}

Value Value::bytes(Tag tag, std::string_view content) {
  auto* storage = allocate<BytesStorage>(content.size());
  storage->length = content.size();
  if (!content.empty()) std::memcpy(storage->text(), content.data(), content.size());
  Value value;
  value.wide_.tag = tag;
  value.wide_.as.bytes = storage;
  return value;
}

void Value::release() noexcept {
  switch (wide_.tag) {
    case Tag::kString:
    case Tag::kData:
      if (dropReference(wide_.as.bytes)) deallocate(wide_.as.bytes);
      break;
    case Tag::kArray: wide_.as.array.~Array(); break;
    case Tag::kDictionary: wide_.as.dictionary.~Dictionary(); break;
    default: break;
  }
}

int64_t Value::intValue() const {
  if (isBoolean() || isInteger()) return wide_.as.integer;
  if (isReal()) return integerOfReal(wide_.as.real);
  return isString() ? leadingInteger(stringValue()) : 0;
}

double Value::doubleValue() const {
  if (isAboveInt64()) return static_cast<double>(static_cast<uint64_t>(wide_.as.integer));
  if (isBoolean() || isInteger()) return static_cast<double>(wide_.as.integer);
  if (isReal()) return wide_.as.real;
  return isString() ? leadingReal(stringValue()) : 0;
}

bool Value::boolValue() const {
  if (isBoolean() || isInteger()) return wide_.as.integer != 0;
  if (isReal()) return wide_.as.real != 0;
  return isString() && booleanOfText(stringValue());
}

std::string_view Value::stringValue() const {
  switch (wide_.tag) {
    case Tag::kInlineString: return {inline_.text, inline_.length};
    case Tag::kLiteral: return {wide_.as.literal, wide_.length};
    case Tag::kString: return {wide_.as.bytes->text(), wide_.as.bytes->length};
    default: return {};
  }
}

std::optional<std::string_view> Value::string() const {
  return isString() ? std::optional(stringValue()) : std::nullopt;
}

std::string_view Value::dataValue() const {
  return isData() ? std::string_view(wide_.as.bytes->text(), wide_.as.bytes->length) : std::string_view();
}

std::optional<Date> Value::date() const {
  return isDate() ? std::optional(Date{wide_.as.real}) : std::nullopt;
}

size_t Value::utf16Length() const {
  size_t units = 0;
  for (const char character : stringValue()) {
    const auto byte = static_cast<unsigned char>(character);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

std::string Value::description() const {
  std::string text;
  describe(text, 0);
  return text;
}

void Value::describe(std::string& out, int depth) const {
  switch (wide_.tag) {
    case Tag::kNone: out += "(null)"; break;
    case Tag::kBoolean: out += wide_.flag ? "true" : "false"; break;
    case Tag::kInteger:
      if (wide_.flag) {
        out += fmt::to_string(static_cast<uint64_t>(wide_.as.integer));
      } else {
        out += fmt::to_string(wide_.as.integer);
      }
      break;
    case Tag::kReal: out += fmt::to_string(wide_.as.real); break;
    case Tag::kDate: out += dateDescription(Date{wide_.as.real}); break;
    case Tag::kInlineString:
    case Tag::kLiteral:
    case Tag::kString:
      if (depth == 0) {
        out += stringValue();
      } else {
        out += '"';
        appendLine(out, stringValue());
        out += '"';
      }
      break;
    case Tag::kData: appendHex(out, dataValue()); break;
    case Tag::kArray: {
      out += '(';
      const char* separator = "";
      for (const Value& element : wide_.as.array) {
        out += std::exchange(separator, ", ");
        element.describe(out, depth + 1);
      }
      out += ')';
      break;
    }
    case Tag::kDictionary: {
      out += '{';
      const char* separator = "";
      for (const auto& [key, value] : wide_.as.dictionary) {
        out += std::exchange(separator, "; ");
        appendLine(out, key.stringValue());
        out += " = ";
        value.describe(out, depth + 1);
      }
      out += '}';
      break;
    }
  }
}

size_t Value::allocationSize() const {
  switch (wide_.tag) {
    case Tag::kString:
    case Tag::kData: return malloc_usable_size(wide_.as.bytes);
    case Tag::kArray: return wide_.as.array.allocationSize();
    case Tag::kDictionary: return wide_.as.dictionary.allocationSize();
    default: return 0;
  }
}

bool operator==(const Value& left, const Value& right) {
  if (left.isNumber() && right.isNumber() && left.isBoolean() == right.isBoolean()) {
    if (left.isReal() || right.isReal()) return left.doubleValue() == right.doubleValue();
    return left.intValue() == right.intValue() && left.isAboveInt64() == right.isAboveInt64();
  }
  if (left.isString() || right.isString()) {
    return left.isString() && right.isString() && left.stringValue() == right.stringValue();
  }
  if (left.wide_.tag != right.wide_.tag) return false;
  switch (left.wide_.tag) {
    case Value::Tag::kDate: return left.wide_.as.real == right.wide_.as.real;
    case Value::Tag::kData: return left.dataValue() == right.dataValue();
    case Value::Tag::kArray: return left.wide_.as.array == right.wide_.as.array;
    case Value::Tag::kDictionary: return left.wide_.as.dictionary == right.wide_.as.dictionary;
    default: return true;
  }
}

const Value& Value::none() {
  static const Value none;
  return none;
}

}  // namespace zun
