#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace zun {

// What decoding and encoding of messages share.

inline constexpr char kDBusNativeOrder = std::endian::native == std::endian::little ? 'l' : 'B';
inline constexpr char kDBusOtherOrder = std::endian::native == std::endian::little ? 'B' : 'l';
inline constexpr uint8_t kDBusProtocolVersion = 1;
inline constexpr size_t kDBusMaximumArrayBytes = size_t{64} << 20;
inline constexpr size_t kDBusMaximumMessageBytes = size_t{128} << 20;

enum class DBusField : uint8_t {
  kPath = 1,
  kInterface = 2,
  kMember = 3,
  kErrorName = 4,
  kReplySerial = 5,
  kDestination = 6,
  kSender = 7,
  kSignature = 8,
  kUnixDescriptors = 9,
};

/// `alignment` is 1, 2, 4 or 8.
[[nodiscard]] constexpr size_t dbusPadding(size_t position, size_t alignment) {
  return (alignment - position) & (alignment - 1);
}

}  // namespace zun
