#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zun {

/// Where the device is. Any thread.
class Locale {
 public:
  virtual ~Locale() = default;

  /// Region code such as "DE", or none.
  [[nodiscard]] virtual std::optional<std::string> regionCode() const = 0;

  /// Offset of local time from GMT at this moment, in seconds, east positive.
  [[nodiscard]] virtual int32_t timeZoneOffsetSeconds() const = 0;
};

}  // namespace zun
