#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "values/Result.h"
#include "values/Value.h"

namespace zun {

/// One event as a dashboard receives it: a header of 64 bytes and a line of text.
///
/// The layout is read here on its own, with nothing of the daemon's code, so that a
/// mistake of the sender shows. Threading: a plain value.
struct DashboardDatagram final {
  static constexpr size_t kHeaderBytes = 64;
  static constexpr size_t kLargestText = 1023;
  static constexpr size_t kLargest = kHeaderBytes + kLargestText;

  uint8_t formatVersion = 0;
  uint8_t clientType = 0;
  uint32_t seconds = 0;       // since 1970
  uint16_t milliseconds = 0;  // 0 to 996, in steps of 4
  uint32_t sessionID = 0;
  uint16_t clientVersion = 0;
  uint16_t method = 0;
  uint16_t respCode = 0;
  std::string deviceID;  // without the zeros that fill its 40 bytes
  uint16_t eventNumber = 0;
  uint16_t flags = 0;
  std::string text;  // as it came

  /// The datagram in `bytes`, or why they are none: too short, too long, another length
  /// than the header tells, or a field that no sender sets so.
  static Result<DashboardDatagram, std::string> decode(std::string_view bytes);

  /// The sender keeps the datagram until it is acknowledged.
  [[nodiscard]] bool isReliable() const { return (flags & 1) != 0; }
  /// The sender's address of this dashboard did not come from a storebag.
  [[nodiscard]] bool isWithoutProfile() const { return (flags & 2) != 0; }
  /// The text has reached its limit: its end may be missing.
  [[nodiscard]] bool mayBeCut() const { return text.size() >= kLargestText; }

  /// Keys and values of the text, escapes resolved, in the order of the text.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> fields() const;

  /// Everything above under keys of the same names, the fields as a dictionary, for one
  /// line of JSON. Bytes that are no UTF-8 become U+FFFD.
  [[nodiscard]] Dictionary record() const;
};

/// Keys and values of " key=value key=value", where values carry "\=" for "=" and "\\"
/// for "\". A word with an "=" that is not escaped begins a pair, and its last such "="
/// divides; words without one belong to the value before them, blanks included. Text
/// before the first pair is left out. A key that holds blanks or backslashes itself reads
/// otherwise than it was meant: nobody can tell.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> dashboardFields(std::string_view text);

}  // namespace zun
