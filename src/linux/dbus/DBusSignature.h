#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zun {

/// A validated D-Bus signature: at most 255 characters, 32 arrays and 32 structs deep.
/// Knows where each complete type ends, so that walking values never scans it again.
///
/// Refers to the text it was parsed from.
class DBusSignature final {
 public:
  static constexpr size_t kMaximumLength = 255;
  static constexpr size_t kMaximumArrayDepth = 32;
  static constexpr size_t kMaximumStructDepth = 32;

  /// None for anything that is not a signature.
  [[nodiscard]] static std::optional<DBusSignature> parse(std::string_view text);

  [[nodiscard]] std::string_view text() const { return text_; }
  [[nodiscard]] char operator[](size_t position) const { return text_[position]; }
  /// The position after the complete type that begins at `position`.
  [[nodiscard]] size_t endOfType(size_t position) const { return ends_[position]; }
  [[nodiscard]] bool isSingleType() const { return !text_.empty() && ends_[0] == text_.size(); }

 private:
  explicit DBusSignature(std::string_view text) : text_(text) {}
  bool parseType(size_t& position, size_t arrayDepth, size_t structDepth);
  bool parseArray(size_t& position, size_t arrayDepth, size_t structDepth);
  bool parseStruct(size_t& position, size_t arrayDepth, size_t structDepth);
  bool parseDictionaryEntry(size_t& position, size_t arrayDepth, size_t structDepth);

  std::string_view text_;
  std::array<uint8_t, kMaximumLength> ends_;  // set where a complete type begins
};

/// One of "ybnqiuxtdsogh": what a dictionary's key may be.
[[nodiscard]] bool isBasicDBusType(char type);

/// Bytes to which a value of a type that begins with `type` is aligned.
[[nodiscard]] size_t alignmentOfDBusType(char type);

/// Bytes of each value of a basic type of fixed size, else 0.
[[nodiscard]] size_t fixedSizeOfDBusType(char type);

}  // namespace zun
