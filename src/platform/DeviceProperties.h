#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zun {

/// The device's identity by property name ("UniqueDeviceID", "ProductVersion",
/// "BuildVersion", "HWModelStr", "SerialNumber", "ProductType", "DeviceName",
/// "ReleaseType"). Asked afresh on each call. Any thread.
class DeviceProperties {
 public:
  virtual ~DeviceProperties() = default;

  /// The property, or none where the device does not tell.
  [[nodiscard]] virtual std::optional<std::string> property(std::string_view key) const = 0;
};

}  // namespace zun
