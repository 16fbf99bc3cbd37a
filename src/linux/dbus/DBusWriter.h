#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "linux/dbus/DBusMessage.h"
#include "linux/dbus/DBusSignature.h"
#include "values/Value.h"

namespace zun {

/// Appends one message to a string, in this machine's byte order. Alignment counts from
/// where the string ended when the writer was made.
class DBusWriter final {
 public:
  DBusWriter(std::string& out, const DBusLimits& limits) : out_(out), base_(out.size()), limits_(limits) {}

  [[nodiscard]] size_t position() const { return out_.size() - base_; }
  [[nodiscard]] const DBusFailure& failure() const { return failure_; }

  void align(size_t alignment);
  template <typename Number>
  void writeNumber(Number number);
  /// Overwrites the number at `position`.
  void patchUInt32(size_t position, size_t number);
  /// `text` is valid for the wire already.
  void writeText(std::string_view text);
  void writeSignatureText(std::string_view text);
  /// `value` as the complete type that begins at `at`; false when it cannot be.
  bool writeValue(const DBusSignature& signature, size_t at, size_t depth, const Value& value);

 private:
  bool writeBasic(char type, const Value& value);
  bool writeTextOf(char type, const Value& value);
  bool writeVariant(size_t depth, const Value& value);
  bool writeArray(const DBusSignature& signature, size_t at, size_t depth, const Value& value);
  bool writeElements(const DBusSignature& signature, size_t at, size_t depth, const Value& value);
  bool writeEntries(const DBusSignature& signature, size_t at, size_t depth, const Value& value);
  bool writeStruct(const DBusSignature& signature, size_t at, size_t depth, const Value& value);
  bool fail(DBusFailure::Kind kind, const char* reason);

  std::string& out_;
  size_t base_;
  const DBusLimits& limits_;
  DBusFailure failure_;
};

}  // namespace zun
