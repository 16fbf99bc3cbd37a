#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zun {

/// Appends `value` in big-endian order.
inline void appendNumber(std::string& out, uint64_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out += static_cast<char>(value >> shift);
}

/// What a datagram's fields are to be.
struct DashboardFields {
  uint8_t clientType = 7;
  uint8_t constant = 1;
  uint8_t subseconds = 30;
  uint32_t seconds = 1000;
  uint32_t sessionID = 0x01020304;
  uint16_t clientVersion = 0x0506;
  uint16_t eventNumber = 0x0708;
  uint16_t flags = 1;
  std::string_view text = " a=1";
};

/// The datagram with these fields, put together by hand.
inline std::string dashboardBytes(const DashboardFields& fields = {}) {
  std::string bytes;
  appendNumber(bytes, 3, 1);
  appendNumber(bytes, fields.clientType, 1);
  appendNumber(bytes, fields.constant, 1);
  appendNumber(bytes, fields.subseconds, 1);
  appendNumber(bytes, fields.seconds, 4);
  appendNumber(bytes, ~fields.sessionID, 4);
  appendNumber(bytes, ~fields.clientVersion & 0xFFFF, 2);
  appendNumber(bytes, ~(64 + fields.text.size()) & 0xFFFF, 2);
  appendNumber(bytes, 0x090A, 2);  // method
  appendNumber(bytes, 0x0B0C, 2);  // response code
  bytes += "device-1" + std::string(32, '\0');
  appendNumber(bytes, fields.eventNumber, 2);
  appendNumber(bytes, fields.flags, 2);
  return bytes.append(fields.text);
}

}  // namespace zun
