#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/MemoryBudget.h"
#include "values/Result.h"
#include "values/Value.h"

namespace zun {

/// What one message may cost. Checked before anything is allocated for it.
struct DBusLimits {
  size_t maximumMessageBytes = size_t{1} << 20;
  /// One text that is sent; those received are as long as their message lets them be.
  size_t maximumTextBytes = size_t{32} << 20;
  /// Arrays, dictionaries and structs within each other; a variant in a variant counts.
  size_t maximumDepth = 32;
  /// Memory of all values of one message: small input may mean large values.
  size_t maximumDecodedBytes = size_t{16} << 20;
  /// Of them, what any message may take, however much others do.
  size_t uncountedDecodedBytes = size_t{64} << 10;
};

enum class DBusMessageType : uint8_t { kMethodCall = 1, kMethodReturn = 2, kError = 3, kSignal = 4 };

inline constexpr uint8_t kDBusFlagNoReplyExpected = 0x1;

/// A message's header. Texts refer to the bytes it was decoded from.
struct DBusHeader {
  DBusMessageType type = DBusMessageType::kMethodCall;
  uint8_t flags = 0;
  bool isSwapped = false;  // the other byte order than this machine's
  uint32_t serial = 0;
  uint32_t replySerial = 0;
  uint32_t descriptorCount = 0;
  std::string_view path;
  std::string_view interface;
  std::string_view member;
  std::string_view errorName;
  std::string_view destination;
  std::string_view sender;
  std::string_view signature;

  [[nodiscard]] bool expectsReply() const {
    return type == DBusMessageType::kMethodCall && (flags & kDBusFlagNoReplyExpected) == 0;
  }
};

/// Why a message was not decoded.
struct DBusFailure {
  enum class Kind { kMalformed, kTooDeep, kTooLarge };
  Kind kind = Kind::kMalformed;
  const char* reason = "";
};

/// Where a message begins and ends in a stream.
struct DBusFrame {
  static constexpr size_t kFixedBytes = 16;

  size_t headerBytes = 0;  // the body begins here
  size_t totalBytes = 0;
};

/// The frame of the message whose first kFixedBytes (or more) are given. Fails for what
/// is no message of protocol version 1; sizes are D-Bus's own limits at most.
[[nodiscard]] Result<DBusFrame, DBusFailure> frameDBusMessage(std::string_view bytes);

/// Decodes the `headerBytes` first bytes of a message.
[[nodiscard]] Result<DBusHeader, DBusFailure> decodeDBusHeader(std::string_view header,
                                                               const DBusLimits& limits = {});

/// Decodes the headers of what one peer sends: its calls differ by their serials mostly, so
/// that fields which come again are not read again. One thread.
class DBusHeaderDecoder final {
 public:
  DBusHeaderDecoder() = default;
  DBusHeaderDecoder(const DBusHeaderDecoder&) = delete;
  DBusHeaderDecoder& operator=(const DBusHeaderDecoder&) = delete;

  /// As `decodeDBusHeader`; texts last until the next call and as long as `header`.
  [[nodiscard]] Result<DBusHeader, DBusFailure> decode(std::string_view header, const DBusLimits& limits);
  void forget() { std::string().swap(known_); }

 private:
  std::string known_;  // the fields that came last, and what comes before them; empty for none
  DBusHeader header_;  // of them: its texts refer to it
};

/// Decodes a body into one value for each type of the header's signature:
///
///   a{sv}, a{ss} (any array of entries with text keys)  dictionary
///   ay data, (d) date, other arrays and structs         array
///   s o g string, b boolean, d real, v what it holds
///   y n q i u x t integer, h the descriptor's index
///
/// Linear in the size of the body, whatever is in it. What its values take, beyond what any
/// message may, is taken of `memory` (null: of nothing) before it is used.
[[nodiscard]] Result<Array, DBusFailure> decodeDBusBody(const DBusHeader& header, std::string_view body,
                                                        const DBusLimits& limits = {},
                                                        MemoryShare* memory = nullptr);

/// Appends a message to `out` in this machine's byte order, the `values` as
/// `header.signature` has them (a value of another kind is turned into what fits best).
/// A variant is typed by its value: x (t above INT64_MAX) b d s ay (d) av a{sv}.
/// On failure `out` is as before, and the result says why.
[[nodiscard]] std::optional<DBusFailure> appendDBusMessage(std::string& out, const DBusHeader& header,
                                                           const Array& values,
                                                           const DBusLimits& limits = {});

/// The body of such a message alone, and the message of it: for one that is known before
/// its header is.
[[nodiscard]] Result<std::string, DBusFailure> encodeDBusBody(std::string_view signature, const Array& values,
                                                              const DBusLimits& limits = {});
[[nodiscard]] std::optional<DBusFailure> appendDBusMessageOfBody(std::string& out, const DBusHeader& header,
                                                                 std::string_view body,
                                                                 const DBusLimits& limits = {});

}  // namespace zun
