#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Clock.h"
#include "values/Value.h"

namespace zun {

/// What a dashboard datagram says of an event beside its payload.
struct DashboardHeader {
  uint8_t formatMajorVersion = 0;
  uint8_t clientType = 0;
  TimeValue timestamp;
  uint32_t sessionID = 0;
  uint16_t clientVersion = 0;
  uint16_t method = 0;
  uint16_t respCode = 0;
  std::string_view deviceIdentifier;  // its first 40 bytes count
  uint16_t eventNumber = 0;
  bool isReliable = false;        // the server is to acknowledge
  bool isWithoutProfile = false;  // the server was not named by a storebag
};

/// One event as a dashboard server receives it: a header of 64 bytes, big-endian and
/// partly inverted (docs/protocol.md has the table), and a line of " key=value" text.
///
/// Threading: one thread at a time. Ownership: owns its buffer; moves.
class DashboardDatagram final {
 public:
  static constexpr size_t kHeaderBytes = 64;
  static constexpr size_t kTextBufferBytes = 1024;  // with the zero that is not sent
  static constexpr size_t kBufferBytes = kHeaderBytes + kTextBufferBytes;
  static constexpr size_t kDeviceIdentifierBytes = 40;

  /// The text has an entry for each key, shortest values first. A value's text is
  /// - a string as it is; a number in plain decimal form, a real one in the shortest form
  ///   that reads back, a boolean as 1 or 0, being a number; "null" for everything else;
  /// - without line feeds, with a backslash before each backslash and "="; "empty" where
  ///   that leaves nothing.
  /// None if there is no memory for it.
  [[nodiscard]] static std::optional<DashboardDatagram> make(const DashboardHeader& header,
                                                             const Dictionary& payload);

  [[nodiscard]] std::span<const std::byte> bytes() const { return {buffer_.get(), length_}; }

  /// The event's line for the local log and the client: well-formed UTF-8, 1151 bytes
  /// before anything in it had to be made so.
  [[nodiscard]] std::string writeLocalLog(std::string_view senderCode) const;

 private:
  DashboardDatagram(std::unique_ptr<std::byte[]> buffer, size_t length)
      : buffer_(std::move(buffer)), length_(length) {}

  std::unique_ptr<std::byte[]> buffer_;
  size_t length_;
};

/// The event number that an acknowledgement is for: servers send the datagram back, or
/// its first 62 bytes at least. None for anything shorter.
[[nodiscard]] std::optional<uint16_t> acknowledgedEventNumber(std::span<const std::byte> acknowledgement);

}  // namespace zun
