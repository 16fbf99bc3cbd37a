#pragma once

#include <cstdint>
#include <string_view>

#include "linux/dbus/DBusMessage.h"
#include "linux/dbus/DBusSignature.h"
#include "values/Value.h"

namespace zun {

/// Walks the bytes of one message part (header fields or body), which begins at an
/// offset that is a multiple of 8. Every read tells whether it succeeded; after one
/// that did not, `failure` says why and the reader is of no more use.
class DBusReader final {
 public:
  /// `memory`, if not null: what the values take counts in it.
  DBusReader(std::string_view bytes, bool isSwapped, const DBusLimits& limits, MemoryShare* memory = nullptr)
      : bytes_(bytes), end_(bytes.size()), isSwapped_(isSwapped), limits_(limits), memory_(memory) {}

  [[nodiscard]] bool atEnd() const { return position_ == end_; }
  [[nodiscard]] const DBusFailure& failure() const { return failure_; }

  bool align(size_t alignment);
  bool readByte(uint8_t& value);
  bool readUInt32(uint32_t& value);
  /// Text of types s, o (checked as such by the caller) and g.
  bool readText(std::string_view& text);
  bool readSignatureText(std::string_view& text);

  /// The value of the complete type that begins at `at`; `depth` containers are around it.
  bool readValue(const DBusSignature& signature, size_t at, size_t depth, Value& value);
  bool readVariant(size_t depth, Value& value);

 private:
  template <typename Integer>
  bool readInteger(Integer& value);
  bool readBasic(char type, Value& value);
  bool readBoolean(Value& value);
  bool readReal(double& value);
  bool readArray(const DBusSignature& signature, size_t at, size_t depth, Value& value);
  bool readData(size_t length, Value& value);
  bool readElements(const DBusSignature& signature, size_t at, size_t depth, Value& value);
  bool readDictionary(const DBusSignature& signature, size_t at, size_t depth, Value& value);
  bool readEntries(const DBusSignature& signature, size_t at, size_t depth, Value& value);
  bool readStruct(const DBusSignature& signature, size_t at, size_t depth, Value& value);
  /// Counts memory that is about to be used.
  bool charge(size_t bytes);
  bool fail(DBusFailure::Kind kind, const char* reason);
  bool malformed(const char* reason) { return fail(DBusFailure::Kind::kMalformed, reason); }
  [[nodiscard]] size_t remaining() const { return end_ - position_; }

  std::string_view bytes_;
  size_t position_ = 0;
  size_t end_;  // of the innermost array being read
  bool isSwapped_;
  const DBusLimits& limits_;
  MemoryShare* const memory_;
  size_t chargedBytes_ = 0;
  DBusFailure failure_;
};

}  // namespace zun
