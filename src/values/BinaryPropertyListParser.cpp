#include <fmt/format.h>

#include <bit>
#include <optional>
#include <string>
#include <vector>

#include "values/PropertyListForms.h"
#include "values/UTF8.h"

namespace zun {

namespace {

constexpr size_t kHeaderBytes = 8;
constexpr size_t kTrailerBytes = 32;

/// UTF-8 of big-endian UTF-16; none where a surrogate stands alone.
std::optional<std::string> textOfUTF16(std::string_view bytes) {
  const auto unit = [bytes](size_t offset) {
    return static_cast<char32_t>(static_cast<unsigned char>(bytes[offset]) << 8 |
                                 static_cast<unsigned char>(bytes[offset + 1]));
  };
  std::string text;
  text.reserve(bytes.size());
  for (size_t offset = 0; offset + 1 < bytes.size(); offset += 2) {
    char32_t character = unit(offset);
    if (character >= 0xDC00 && character < 0xE000) return std::nullopt;
    if (character >= 0xD800 && character < 0xDC00) {
      if (offset + 3 >= bytes.size()) return std::nullopt;
      const char32_t low = unit(offset + 2);
      if (low < 0xDC00 || low >= 0xE000) return std::nullopt;
      character = 0x10000 + ((character - 0xD800) << 10) + (low - 0xDC00);
      offset += 2;
    }
    appendUTF8(text, character);
  }
  return text;
}

/// One pass over a binary property list.
///
///   trailer ──▶ offset table ──▶ top object ──▶ its objects, each read once
///
/// Objects may be referred to from many places. Each is built once and shared; what
/// the list would be when written out (values, bytes, depth) is added up on the way and
/// bounded. The bytes of different objects together may not exceed the file's, so no
/// file can make overlapping objects into more work than its size.
class BinaryParser final {
 public:
  BinaryParser(std::string_view bytes, const PropertyListLimits& limits) : bytes_(bytes), limits_(limits) {}

  Result<Value, std::string> parse() {
    using Outcome = Result<Value, std::string>;
    if (!readTrailer() || !readObject(top_, 0)) return Outcome::failure(failure_);
    return std::move(objects_[top_].value);
  }

 private:
  enum class Progress : uint8_t { kUnread, kOpen, kRead };

  struct Object {
    Value value;
    uint64_t expandedBytes = 0;
    uint32_t expandedValues = 1;
    uint16_t height = 0;  // of containers, itself included
    Progress progress = Progress::kUnread;
  };

  /// Where an object's content begins, and how many bytes or entries it has.
  struct Extent {
    size_t offset = 0;
    uint64_t count = 0;
  };

  bool fail(const char* why) {
    if (failure_ == nullptr) failure_ = why;
    return false;
  }

  uint8_t byteAt(size_t offset) const { return static_cast<uint8_t>(bytes_[offset]); }

  /// Big-endian; the caller has checked that the bytes are there.
  uint64_t unsignedAt(size_t offset, size_t width) const {
    uint64_t number = 0;
    for (size_t i = 0; i < width; ++i) number = number << 8 | byteAt(offset + i);
    return number;
  }

  bool readTrailer() {
    if (!bytes_.starts_with("bplist00")) return fail("an unknown version of the binary form");
    if (bytes_.size() < kHeaderBytes + kTrailerBytes + 2) return fail("too short");
    const size_t trailer = bytes_.size() - kTrailerBytes;
    offsetWidth_ = byteAt(trailer + 6);
    referenceWidth_ = byteAt(trailer + 7);
    const uint64_t count = unsignedAt(trailer + 8, 8);
    const uint64_t top = unsignedAt(trailer + 16, 8);
    const uint64_t table = unsignedAt(trailer + 24, 8);
    if (offsetWidth_ < 1 || offsetWidth_ > 8 || referenceWidth_ < 1 || referenceWidth_ > 8) {
      return fail("a width in the trailer is out of range");
    }
    if (count < 1 || top >= count) return fail("the trailer names no object");
    if (count > limits_.maximumValues) return fail("too many objects");
    if (table <= kHeaderBytes || table >= trailer || count > (trailer - table) / offsetWidth_) {
      return fail("the offset table is outside of the file");
    }
    table_ = static_cast<size_t>(table);
    top_ = static_cast<size_t>(top);
    bytesLeft_ = table_ - kHeaderBytes;
    objects_.resize(static_cast<size_t>(count));
    return true;
  }

  /// Takes `count` bytes at `offset` as belonging to one object.
  bool claim(size_t offset, uint64_t count) {
    if (offset > table_ || count > table_ - offset)
      return fail("an object reaches beyond its part of the file");
    if (count > bytesLeft_) return fail("objects overlap");
    bytesLeft_ -= static_cast<size_t>(count);
    return true;
  }

  /// Recursion is bounded by the depth that is allowed.
  bool readObject(size_t index, size_t depth) {
    Object& object = objects_[index];
    if (object.progress == Progress::kOpen) return fail("an object contains itself");
    if (object.progress == Progress::kUnread) {
      object.progress = Progress::kOpen;
      if (!readContent(object, index, depth)) return false;
      object.progress = Progress::kRead;
    }
    return depth + object.height <= limits_.maximumDepth || fail("nested too deep");
  }

  bool readContent(Object& object, size_t index, size_t depth) {
    const uint64_t start = unsignedAt(table_ + index * offsetWidth_, offsetWidth_);
    if (start < kHeaderBytes || start >= table_) return fail("an offset is outside of the file");
    const auto offset = static_cast<size_t>(start);
    if (!claim(offset, 1)) return false;
    const uint8_t marker = byteAt(offset);
    switch (marker >> 4) {
      case 0x0: return readSingleton(object, marker);
      case 0x1: return readInteger(object, offset + 1, marker & 0xF);
      case 0x2: return readReal(object, offset + 1, marker & 0xF);
      case 0x3: return readDate(object, offset + 1, marker & 0xF);
      case 0x4:
      case 0x5: return readBytes(object, offset, marker);
      case 0x6: return readUTF16(object, offset);
      case 0x8: return readUID(object, offset + 1, (marker & 0xF) + size_t{1});
      case 0xA:
      case 0xB:
      case 0xC: return readArray(object, offset, depth);
      case 0xD: return readDictionary(object, offset, depth);
      default: return fail("an object of unknown type");
    }
  }

  bool readSingleton(Object& object, uint8_t marker) {
    switch (marker) {
      case 0x00: return true;  // none
      case 0x08: object.value = Value(false); return true;
      case 0x09: object.value = Value(true); return true;
      default: return fail("an object of unknown type");
    }
  }

  /// One, two and four bytes are unsigned, eight are signed, sixteen hold what is
  /// above.
  bool readInteger(Object& object, size_t offset, unsigned widthExponent) {
    if (widthExponent > 4) return fail("an integer of unknown width");
    const size_t width = size_t{1} << widthExponent;
    if (!claim(offset, width)) return false;
    if (width < 16) {
      object.value = Value(static_cast<int64_t>(unsignedAt(offset, width)));
      return true;
    }
    const uint64_t high = unsignedAt(offset, 8);
    const uint64_t low = unsignedAt(offset + 8, 8);
    const bool isNegative = (low >> 63) != 0;
    if (high == 0) {
      object.value = Value(low);
    } else if (high == ~uint64_t{0} && isNegative) {
      object.value = Value(static_cast<int64_t>(low));
    } else {
      return fail("an integer beyond 64 bits");
    }
    return true;
  }

  bool readReal(Object& object, size_t offset, unsigned widthExponent) {
    if (widthExponent == 2 && claim(offset, 4)) {
      object.value = Value(double{std::bit_cast<float>(static_cast<uint32_t>(unsignedAt(offset, 4)))});
      return true;
    }
    if (widthExponent == 3 && claim(offset, 8)) {
      object.value = Value(std::bit_cast<double>(unsignedAt(offset, 8)));
      return true;
    }
    return fail("a real of unknown width");
  }

  bool readDate(Object& object, size_t offset, unsigned widthExponent) {
    if (widthExponent != 3) return fail("a date of unknown width");
    if (!claim(offset, 8)) return false;
    object.value = Value(Date{std::bit_cast<double>(unsignedAt(offset, 8)) + kSecondsTo2001});
    return true;
  }

  bool readUID(Object& object, size_t offset, size_t width) {
    if (width > 8) return fail("a UID beyond 64 bits");
    if (!claim(offset, width)) return false;
    object.value = Value(unsignedAt(offset, width));
    return true;
  }

  /// The count of an object is in its marker, or in an integer that follows.
  bool readExtent(size_t offset, Extent& extent) {
    const unsigned nibble = byteAt(offset) & 0xF;
    extent = {offset + 1, nibble};
    if (nibble != 0xF) return true;
    if (!claim(offset + 1, 1)) return false;
    const uint8_t marker = byteAt(offset + 1);
    const size_t width = size_t{1} << (marker & 0xF);
    if ((marker & 0xF0) != 0x10 || width > 8) return fail("a count that is no integer");
    if (!claim(offset + 2, width)) return false;
    extent = {offset + 2 + width, unsignedAt(offset + 2, width)};
    return true;
  }

  bool readBytes(Object& object, size_t offset, uint8_t marker) {
    Extent extent;
    if (!readExtent(offset, extent) || !claim(extent.offset, extent.count)) return false;
    const std::string_view content = bytes_.substr(extent.offset, static_cast<size_t>(extent.count));
    object.expandedBytes = content.size();
    if (marker >> 4 == 0x4) {
      object.value = Value::data(content);
      return true;
    }
    for (const char character : content) {
      if (static_cast<unsigned char>(character) >= 0x80) return fail("a string that is not ASCII");
    }
    object.value = Value(content);
    return true;
  }

  bool readUTF16(Object& object, size_t offset) {
    Extent extent;
    if (!readExtent(offset, extent)) return false;
    if (extent.count > bytes_.size()) return fail("an object reaches beyond its part of the file");
    if (!claim(extent.offset, extent.count * 2)) return false;
    const auto text = textOfUTF16(bytes_.substr(extent.offset, static_cast<size_t>(extent.count) * 2));
    if (!text) return fail("a string that is not UTF-16");
    object.expandedBytes = text->size();
    object.value = Value(*text);
    return true;
  }

  /// The object that the reference at `offset` means, read; null where that fails.
  const Object* child(Object& parent, size_t offset, size_t depth) {
    const uint64_t index = unsignedAt(offset, referenceWidth_);
    if (index >= objects_.size()) {
      fail("a reference to no object");
      return nullptr;
    }
    if (!readObject(static_cast<size_t>(index), depth)) return nullptr;
    const Object& object = objects_[static_cast<size_t>(index)];
    parent.height = std::max<uint16_t>(parent.height, static_cast<uint16_t>(object.height + 1));
    const uint64_t values = uint64_t{parent.expandedValues} + object.expandedValues;
    parent.expandedBytes += object.expandedBytes;
    if (values > limits_.maximumValues) {
      fail("too many values");
      return nullptr;
    }
    if (parent.expandedBytes > limits_.maximumExpandedBytes) {
      fail("too large when written out");
      return nullptr;
    }
    parent.expandedValues = static_cast<uint32_t>(values);
    return &object;
  }

  /// Claims the references of a container.
  bool readReferences(Object& object, size_t offset, unsigned perEntry, Extent& extent) {
    object.height = 1;
    if (!readExtent(offset, extent)) return false;
    if (extent.count > bytes_.size()) return fail("an object reaches beyond its part of the file");
    return claim(extent.offset, extent.count * perEntry * referenceWidth_);
  }

  bool readArray(Object& object, size_t offset, size_t depth) {
    Extent extent;
    if (depth >= limits_.maximumDepth) return fail("nested too deep");
    if (!readReferences(object, offset, 1, extent)) return false;
    Array array;
    for (uint64_t i = 0; i < extent.count; ++i) {
      const size_t reference = extent.offset + static_cast<size_t>(i) * referenceWidth_;
      const Object* const element = child(object, reference, depth + 1);
      if (element == nullptr) return false;
      array.append(element->value);
    }
    object.value = Value(std::move(array));
    return true;
  }

  bool readDictionary(Object& object, size_t offset, size_t depth) {
    Extent extent;
    if (depth >= limits_.maximumDepth) return fail("nested too deep");
    if (!readReferences(object, offset, 2, extent)) return false;
    Dictionary dictionary;
    const size_t valuesAt = extent.offset + static_cast<size_t>(extent.count) * referenceWidth_;
    for (uint64_t i = 0; i < extent.count; ++i) {
      const size_t step = static_cast<size_t>(i) * referenceWidth_;
      const Object* const key = child(object, extent.offset + step, depth + 1);
      if (key == nullptr) return false;
      if (!key->value.isString()) return fail("a key that is no string");
      const Object* const value = child(object, valuesAt + step, depth + 1);
      if (value == nullptr) return false;
      if (!value->value.isNone()) dictionary.set(key->value, value->value);
    }
    object.value = Value(std::move(dictionary));
    return true;
  }

  const std::string_view bytes_;
  const PropertyListLimits& limits_;
  size_t offsetWidth_ = 0;
  size_t referenceWidth_ = 0;
  size_t table_ = 0;
  size_t top_ = 0;
  size_t bytesLeft_ = 0;  // of the objects' part of the file, not yet claimed
  std::vector<Object> objects_;
  const char* failure_ = nullptr;
};

}  // namespace

Result<Value, std::string> parseBinaryPropertyList(std::string_view bytes, const PropertyListLimits& limits) {
  return BinaryParser(bytes, limits).parse();
}

}  // namespace zun
