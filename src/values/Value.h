#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "values/Date.h"

namespace zun {

class Value;
struct DictionaryEntry;

namespace detail {
struct ArrayStorage;
struct DictionaryStorage;
struct BytesStorage;
}  // namespace detail

/// An ordered list of values: the mutable builder and the shared content alike.
///
/// Copying shares the storage; the first change of a shared array copies it. One
/// object belongs to one thread at a time, shared storage to any number.
class Array final {
 public:
  Array() = default;
  Array(std::initializer_list<Value> elements);
  Array(const Array& other) noexcept;
  Array(Array&& other) noexcept : storage_(std::exchange(other.storage_, nullptr)) {}
  Array& operator=(Array other) noexcept {
    std::swap(storage_, other.storage_);
    return *this;
  }
  ~Array();

  /// An empty array with room for `capacity` elements in one block.
  static Array withCapacity(size_t capacity);

  [[nodiscard]] size_t size() const;
  [[nodiscard]] bool empty() const { return size() == 0; }
  [[nodiscard]] const Value& operator[](size_t index) const;
  [[nodiscard]] const Value* begin() const;
  [[nodiscard]] const Value* end() const;

  void append(Value value);
  void replace(size_t index, Value value);

  /// Size of the heap block as the allocator counts it; 0 for an array without one.
  [[nodiscard]] size_t allocationSize() const;

  friend bool operator==(const Array& left, const Array& right);

 private:
  friend class Value;
  detail::ArrayStorage* mutableStorage(size_t capacity);

  detail::ArrayStorage* storage_ = nullptr;
};

/// String keys to values, in insertion order: the mutable builder and the shared
/// content alike. Setting an existing key keeps its place; setting none removes the
/// key. Sharing as in Array.
class Dictionary final {
 public:
  class Iterator;

  Dictionary() = default;
  Dictionary(std::initializer_list<DictionaryEntry> entries);
  Dictionary(const Dictionary& other) noexcept;
  Dictionary(Dictionary&& other) noexcept : storage_(std::exchange(other.storage_, nullptr)) {}
  Dictionary& operator=(Dictionary other) noexcept {
    std::swap(storage_, other.storage_);
    return *this;
  }
  ~Dictionary();

  /// An empty dictionary with room for `capacity` entries in one block.
  static Dictionary withCapacity(size_t capacity);

  [[nodiscard]] size_t size() const;
  [[nodiscard]] bool empty() const { return size() == 0; }

  /// The value under `key`, or none. The reference lasts until the next change.
  [[nodiscard]] const Value& operator[](std::string_view key) const;
  [[nodiscard]] bool contains(std::string_view key) const;

  /// `key` is a string value; a literal or short key costs no allocation.
  void set(Value key, Value value);
  void remove(std::string_view key);

  /// Sets every entry of `other`, replacing keys of the same name.
  void addEntries(Dictionary other);

  [[nodiscard]] Iterator begin() const;
  [[nodiscard]] Iterator end() const;

  /// Size of the heap block as the allocator counts it; 0 for a dictionary without one.
  [[nodiscard]] size_t allocationSize() const;

  /// Same keys with equal values, in whatever order.
  friend bool operator==(const Dictionary& left, const Dictionary& right);

 private:
  friend class Value;
  detail::DictionaryStorage* mutableStorage(size_t capacity);

  detail::DictionaryStorage* storage_ = nullptr;
};

/// A property-list value: none, boolean, number, string, data, date, array or
/// dictionary. Immutable and cheap to copy (16 bytes; content is shared).
///
/// Strings are UTF-8; up to 14 bytes live inline, string literals are referred to
/// where they stand. Numbers remember whether they are integer or real. Any thread.
class Value final {
 public:
  Value() noexcept : wide_{Tag::kNone, false, 0, Content(int64_t{0})} {}
  Value(const Value& other) noexcept;
  Value(Value&& other) noexcept { takeFrom(other); }
  Value& operator=(const Value& other) noexcept {
    Value copy(other);
    return *this = std::move(copy);
  }
  Value& operator=(Value&& other) noexcept;
  ~Value() {
    if (ownsStorage()) release();
  }

  template <std::same_as<bool> Boolean>
  Value(Boolean value) noexcept : wide_{Tag::kBoolean, value, 0, Content(int64_t{value})} {}

  template <std::integral Integer>
  requires(!std::same_as<Integer, bool> && !std::same_as<Integer, char>) Value(Integer value)
  noexcept
      : wide_{Tag::kInteger, std::unsigned_integral<Integer> && static_cast<int64_t>(value) < 0, 0,
              Content(static_cast<int64_t>(value))} {}

  Value(double value) noexcept : wide_{Tag::kReal, false, 0, Content(value)} {}
  Value(Date value) noexcept : wide_{Tag::kDate, false, 0, Content(value.secondsSince1970)} {}
  Value(std::string_view text);
  Value(const std::string& text) : Value(std::string_view(text)) {}
  Value(const char* text) : Value(std::string_view(text)) {}
  Value(Array array) noexcept;
  Value(Dictionary dictionary) noexcept;

  /// A string that lives as long as the program: referred to, never copied. For keys.
  template <size_t length>
  static Value literal(const char (&text)[length]) {
    return literal(std::string_view(text, length - 1));
  }
  static Value literal(std::string_view staticText) noexcept;

  static Value data(std::string_view bytes);

  [[nodiscard]] bool isNone() const { return wide_.tag == Tag::kNone; }
  [[nodiscard]] bool isBoolean() const { return wide_.tag == Tag::kBoolean; }
  [[nodiscard]] bool isInteger() const { return wide_.tag == Tag::kInteger; }
  [[nodiscard]] bool isReal() const { return wide_.tag == Tag::kReal; }
  /// Booleans count as numbers, as they do in property lists' consumers.
  [[nodiscard]] bool isNumber() const { return isBoolean() || isInteger() || isReal(); }
  [[nodiscard]] bool isString() const {
    return wide_.tag == Tag::kInlineString || wide_.tag == Tag::kLiteral || wide_.tag == Tag::kString;
  }
  [[nodiscard]] bool isData() const { return wide_.tag == Tag::kData; }
  [[nodiscard]] bool isDate() const { return wide_.tag == Tag::kDate; }
  [[nodiscard]] bool isArray() const { return wide_.tag == Tag::kArray; }
  [[nodiscard]] bool isDictionary() const { return wide_.tag == Tag::kDictionary; }

  /// The integer above INT64_MAX that `intValue` gives as negative.
  [[nodiscard]] bool isAboveInt64() const { return isInteger() && wide_.flag; }

  /// A number cut to an integer (a real beyond the range gives the nearest limit), a
  /// string's leading integer, else 0.
  [[nodiscard]] int64_t intValue() const;
  /// The low 32 bits of `intValue`, signed.
  [[nodiscard]] int32_t int32Value() const { return static_cast<int32_t>(intValue()); }
  /// `intValue` where 32 bits hold it, else the nearest limit.
  [[nodiscard]] int32_t nearestInt32Value() const {
    if (isAboveInt64()) return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp<int64_t>(intValue(), std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
  }
  /// A number, a string's leading number, else 0.
  [[nodiscard]] double doubleValue() const;
  /// A number that is not 0; a string that begins, after blanks, a sign and zeros,
  /// with one of YyTt1-9; else false.
  [[nodiscard]] bool boolValue() const;

  /// The text of a string, else empty. Lasts as long as this very value object.
  [[nodiscard]] std::string_view stringValue() const;
  [[nodiscard]] std::optional<std::string_view> string() const;
  /// The bytes of data, else empty.
  [[nodiscard]] std::string_view dataValue() const;
  [[nodiscard]] std::optional<Date> date() const;
  /// The array, or null. Lasts as long as this value.
  [[nodiscard]] const Array* array() const { return isArray() ? &wide_.as.array : nullptr; }
  [[nodiscard]] const Dictionary* dictionary() const {
    return isDictionary() ? &wide_.as.dictionary : nullptr;
  }

  /// Code units that a string has in UTF-16; 0 for anything else.
  [[nodiscard]] size_t utf16Length() const;

  /// For logs. A string is its own description; everything else gives one line, with
  /// control characters escaped.
  [[nodiscard]] std::string description() const;

  /// Size of the heap block as the allocator counts it; 0 for a value held inline.
  [[nodiscard]] size_t allocationSize() const;

  /// Same kind and content; an integer equals a real of the same number, a boolean
  /// never one: what receives posts tells them apart.
  friend bool operator==(const Value& left, const Value& right);

  /// The value that stands for none.
  static const Value& none();

 private:
  enum class Tag : uint8_t {
    kNone,
    kBoolean,
    kInteger,
    kReal,
    kDate,
    kInlineString,
    kLiteral,
    kString,
    kData,
    kArray,
    kDictionary,
  };
  static constexpr size_t kInlineCapacity = 14;

  struct Inline {
    Tag tag;
    uint8_t length;
    char text[kInlineCapacity];
  };
  union Content {
    explicit Content(int64_t value) : integer(value) {}
    explicit Content(double value) : real(value) {}
    ~Content() {}  // ~Value ends the member that is there

    int64_t integer;
    double real;
    const char* literal;
    detail::BytesStorage* bytes;
    Array array;
    Dictionary dictionary;
  };
  struct Wide {
    Tag tag;
    bool flag;        // of a boolean: its value; of an integer: above INT64_MAX
    uint32_t length;  // of a literal
    Content as;
  };

  [[nodiscard]] bool ownsStorage() const { return wide_.tag >= Tag::kString; }
  void takeFrom(Value& other) noexcept {
    std::memcpy(static_cast<void*>(this), &other, sizeof(Value));
    new (&other) Value();
  }
  void release() noexcept;
  void describe(std::string& out, int depth) const;
  static Value bytes(Tag tag, std::string_view bytes);
  friend class Dictionary;

  union {
    Inline inline_;
    Wide wide_;
  };
};

static_assert(sizeof(Value) == 16);

/// Bytes as text, without a copy.
inline std::string_view asText(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

struct DictionaryEntry {
  Value key;
  Value value;
};

/// Walks a dictionary in insertion order. A change of the dictionary object that it
/// came from ends its use; take a copy of the dictionary to change while walking.
class Dictionary::Iterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = DictionaryEntry;
  using difference_type = std::ptrdiff_t;
  using pointer = const DictionaryEntry*;
  using reference = const DictionaryEntry&;

  Iterator() = default;
  reference operator*() const { return *entry_; }
  pointer operator->() const { return entry_; }
  Iterator& operator++() {
    ++entry_;
    skipRemoved();
    return *this;
  }
  Iterator operator++(int) {
    Iterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const Iterator&, const Iterator&) = default;

 private:
  friend class Dictionary;
  Iterator(pointer entry, pointer end) : entry_(entry), end_(end) { skipRemoved(); }
  void skipRemoved() {
    while (entry_ != end_ && entry_->key.isNone()) ++entry_;
  }

  pointer entry_ = nullptr;
  pointer end_ = nullptr;
};

}  // namespace zun

/// Values format as their description.
template <>
struct fmt::formatter<zun::Value> : fmt::formatter<std::string_view> {
  template <typename Context>
  auto format(const zun::Value& value, Context& context) const {
    if (value.isString()) return fmt::formatter<std::string_view>::format(value.stringValue(), context);
    return fmt::formatter<std::string_view>::format(value.description(), context);
  }
};
