#include "linux/dbus/DBusReader.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <type_traits>
#include <utility>

#include "linux/dbus/DBusNames.h"
#include "linux/dbus/DBusWire.h"

namespace zun {

namespace {

// What the heap takes for a value's block, about; inline values take their slot only.
constexpr size_t kBlockBytes = 48;
constexpr size_t kSmallArrayBytes = 96;
constexpr size_t kSmallDictionaryBytes = 160;
constexpr size_t kInlineTextBytes = 14;

// An entry of a typical record takes this much on the wire: good enough to get most
// dictionaries' memory in one piece without asking for much too much.
constexpr size_t kTypicalEntryBytes = 24;
constexpr size_t kMostExpectedEntries = 40;

bool isTextType(char type) {
  return type == 's' || type == 'o' || type == 'g';
}

}  // namespace

bool DBusReader::fail(DBusFailure::Kind kind, const char* reason) {
  failure_ = {kind, reason};
  return false;
}

bool DBusReader::charge(size_t bytes) {
  chargedBytes_ += bytes;
  if (chargedBytes_ > limits_.maximumDecodedBytes) {
    return fail(DBusFailure::Kind::kTooLarge, "its values take too much memory");
  }
  if (memory_ == nullptr || chargedBytes_ <= limits_.uncountedDecodedBytes) return true;
  if (memory_->grow(std::min(bytes, chargedBytes_ - limits_.uncountedDecodedBytes))) return true;
  return fail(DBusFailure::Kind::kTooLarge, "its values take more memory than its user's calls leave");
}

bool DBusReader::align(size_t alignment) {
  const size_t padding = dbusPadding(position_, alignment);
  if (padding == 0) return true;
  if (padding > remaining()) return malformed("it ends within padding");
  for (size_t index = 0; index < padding; ++index) {
    if (bytes_[position_ + index] != '\0') return malformed("padding is not zero");
  }
  position_ += padding;
  return true;
}

template <typename Integer>
bool DBusReader::readInteger(Integer& value) {
  if (!align(sizeof value)) return false;
  if (remaining() < sizeof value) return malformed("it ends within a number");
  std::memcpy(&value, bytes_.data() + position_, sizeof value);
  position_ += sizeof value;
  if (!isSwapped_) return true;
  using Unsigned = std::make_unsigned_t<Integer>;
  if constexpr (sizeof value == 2) {
    value = static_cast<Integer>(__builtin_bswap16(static_cast<Unsigned>(value)));
  } else if constexpr (sizeof value == 4) {
    value = static_cast<Integer>(__builtin_bswap32(static_cast<Unsigned>(value)));
  } else if constexpr (sizeof value == 8) {
    value = static_cast<Integer>(__builtin_bswap64(static_cast<Unsigned>(value)));
  }
  return true;
}

bool DBusReader::readByte(uint8_t& value) {
  return readInteger(value);
}

bool DBusReader::readUInt32(uint32_t& value) {
  return readInteger(value);
}

bool DBusReader::readReal(double& value) {
  uint64_t bits = 0;
  if (!readInteger(bits)) return false;
  value = std::bit_cast<double>(bits);
  return true;
}

bool DBusReader::readBoolean(Value& value) {
  uint32_t number = 0;
  if (!readInteger(number)) return false;
  if (number > 1) return malformed("a boolean is neither 0 nor 1");
  value = Value(number == 1);
  return true;
}

bool DBusReader::readText(std::string_view& text) {
  uint32_t length = 0;
  if (!readInteger(length)) return false;
  if (length >= remaining()) return malformed("it ends within a string");
  text = bytes_.substr(position_, length);
  if (bytes_[position_ + length] != '\0') return malformed("a string does not end with a zero byte");
  if (!isDBusText(text)) return malformed("a string is not UTF-8");
  position_ += size_t{length} + 1;
  return true;
}

bool DBusReader::readSignatureText(std::string_view& text) {
  uint8_t length = 0;
  if (!readInteger(length)) return false;
  if (length >= remaining()) return malformed("it ends within a signature");
  text = bytes_.substr(position_, length);
  if (bytes_[position_ + length] != '\0') return malformed("a signature does not end with a zero byte");
  position_ += size_t{length} + 1;
  return true;
}

bool DBusReader::readBasic(char type, Value& value) {
  const auto readNumber = [this, &value](auto number) {
    if (!readInteger(number)) return false;
    value = Value(number);
    return true;
  };
  std::string_view text;
  double real = 0;
  switch (type) {
    case 's':
    case 'o':
      if (!readText(text)) return false;
      if (type == 'o' && !isDBusObjectPath(text)) return malformed("an object path is none");
      break;
    case 'g':
      if (!readSignatureText(text)) return false;
      if (!DBusSignature::parse(text)) return malformed("a signature is none");
      break;
    case 'b': return readBoolean(value);
    case 'd':
      if (!readReal(real)) return false;
      value = Value(real);
      return true;
    case 'y': return readNumber(uint8_t{});
    case 'n': return readNumber(int16_t{});
    case 'q': return readNumber(uint16_t{});
    case 'i': return readNumber(int32_t{});
    case 'u':
    case 'h': return readNumber(uint32_t{});
    case 'x': return readNumber(int64_t{});
    case 't': return readNumber(uint64_t{});
    default: return malformed("a type is unknown");
  }
  if (text.size() > kInlineTextBytes && !charge(kBlockBytes + text.size())) return false;
  value = Value(text);
  return true;
}

bool DBusReader::readValue(const DBusSignature& signature, size_t at, size_t depth, Value& value) {
  switch (signature[at]) {
    case 'v': return readVariant(depth, value);
    case 'a': return readArray(signature, at, depth, value);
    case '(': return readStruct(signature, at, depth, value);
    default: return readBasic(signature[at], value);
  }
}

bool DBusReader::readVariant(size_t depth, Value& value) {
  std::string_view text;
  if (!readSignatureText(text)) return false;
  if (text.size() == 1 && isBasicDBusType(text.front())) return readBasic(text.front(), value);
  const auto signature = DBusSignature::parse(text);
  if (!signature || !signature->isSingleType()) return malformed("a variant's signature is no single type");
  if ((*signature)[0] != 'v') return readValue(*signature, 0, depth, value);
  if (depth >= limits_.maximumDepth)
    return fail(DBusFailure::Kind::kTooDeep, "its values are nested too deep");
  return readVariant(depth + 1, value);
}

bool DBusReader::readArray(const DBusSignature& signature, size_t at, size_t depth, Value& value) {
  if (depth >= limits_.maximumDepth)
    return fail(DBusFailure::Kind::kTooDeep, "its values are nested too deep");
  uint32_t length = 0;
  if (!readInteger(length)) return false;
  if (length > kDBusMaximumArrayBytes) return malformed("an array is too long");
  const char element = signature[at + 1];
  if (!align(alignmentOfDBusType(element))) return false;
  if (length > remaining()) return malformed("it ends within an array");
  if (element == 'y') return readData(length, value);

  const size_t outerEnd = std::exchange(end_, position_ + length);
  const bool isRead = element == '{' ? readDictionary(signature, at + 1, depth + 1, value)
                                     : readElements(signature, at + 1, depth + 1, value);
  end_ = outerEnd;
  return isRead;
}

bool DBusReader::readData(size_t length, Value& value) {
  if (!charge(kBlockBytes + length)) return false;
  value = Value::data(bytes_.substr(position_, length));
  position_ += length;
  return true;
}

bool DBusReader::readElements(const DBusSignature& signature, size_t at, size_t depth, Value& value) {
  const size_t fixedSize = fixedSizeOfDBusType(signature[at]);
  const size_t known = fixedSize == 0 ? 0 : remaining() / fixedSize;
  if (!atEnd() && !charge(kSmallArrayBytes + known * sizeof(Value))) return false;
  Array array = known == 0 ? Array() : Array::withCapacity(known);
  while (!atEnd()) {
    if (fixedSize == 0 && !charge(sizeof(Value))) return false;
    Value element;
    if (!readValue(signature, at, depth, element)) return false;
    array.append(std::move(element));
  }
  value = Value(std::move(array));
  return true;
}

bool DBusReader::readDictionary(const DBusSignature& signature, size_t at, size_t depth, Value& value) {
  if (!isTextType(signature[at + 1])) return readEntries(signature, at, depth, value);
  if (atEnd()) {
    value = Value(Dictionary());
    return true;
  }
  const size_t expected = std::min(remaining() / kTypicalEntryBytes + 1, kMostExpectedEntries);
  if (!charge(kSmallDictionaryBytes)) return false;
  Dictionary dictionary = Dictionary::withCapacity(expected);
  while (!atEnd()) {
    if (!charge(sizeof(DictionaryEntry))) return false;
    Value key;
    Value content;
    if (!align(8) || !readBasic(signature[at + 1], key) || !readValue(signature, at + 2, depth, content)) {
      return false;
    }
    dictionary.set(std::move(key), std::move(content));
  }
  value = Value(std::move(dictionary));
  return true;
}

bool DBusReader::readEntries(const DBusSignature& signature, size_t at, size_t depth, Value& value) {
  if (depth >= limits_.maximumDepth)
    return fail(DBusFailure::Kind::kTooDeep, "its values are nested too deep");
  Array entries;
  while (!atEnd()) {
    if (!charge(kSmallArrayBytes + sizeof(Value))) return false;
    Value key;
    Value content;
    if (!align(8) || !readBasic(signature[at + 1], key) ||
        !readValue(signature, at + 2, depth + 1, content)) {
      return false;
    }
    entries.append(Value(Array{std::move(key), std::move(content)}));
  }
  value = Value(std::move(entries));
  return true;
}

bool DBusReader::readStruct(const DBusSignature& signature, size_t at, size_t depth, Value& value) {
  if (!align(8)) return false;
  const size_t end = signature.endOfType(at) - 1;
  if (signature[at + 1] == 'd' && at + 2 == end) {
    double seconds = 0;
    if (!readReal(seconds)) return false;
    value = Value(Date{seconds});
    return true;
  }
  if (depth >= limits_.maximumDepth)
    return fail(DBusFailure::Kind::kTooDeep, "its values are nested too deep");
  if (!charge(kSmallArrayBytes)) return false;
  Array fields;
  for (size_t field = at + 1; field < end; field = signature.endOfType(field)) {
    if (!charge(sizeof(Value))) return false;
    Value content;
    if (!readValue(signature, field, depth + 1, content)) return false;
    fields.append(std::move(content));
  }
  value = Value(std::move(fields));
  return true;
}

}  // namespace zun
