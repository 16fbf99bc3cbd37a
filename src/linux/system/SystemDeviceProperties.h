#pragma once

#include <optional>
#include <string>

#include "linux/files/PropertyListFile.h"
#include "platform/DeviceProperties.h"
#include "platform/FileManager.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"

namespace zun {

/// The machine's identity, from first to last:
///
///   1. `/etc/zunreportingd/device.plist`, a dictionary of strings: the integrator's
///      word on any property, and the only source of "ReleaseType"
///   2. machine id (an application-specific one, never the raw one), os-release,
///      kernel release, DMI or device tree, host name
///
/// A file of overrides that cannot be read is one error line and overrides nothing.
/// Threading: any thread. Ownership: `files` and `log` outlive it.
class SystemDeviceProperties final : public DeviceProperties {
 public:
  /// `systemRoot` stands before the paths of the system's own files (os-release, /sys
  /// and /proc); empty but in tests.
  SystemDeviceProperties(const FileManager& files, SystemLog& log, std::string systemRoot = {});

  [[nodiscard]] std::optional<std::string> property(std::string_view key) const override;

 private:
  [[nodiscard]] std::optional<std::string> overriddenProperty(std::string_view key) const;
  [[nodiscard]] std::optional<std::string> osRelease(std::string_view field) const;
  /// The content of a file of one line; none where it says nothing.
  [[nodiscard]] std::optional<std::string> lineOf(std::string_view path) const;

  const FileManager& files_;
  SystemLog& log_;
  const std::string systemRoot_;
  mutable Mutex mutex_;
  mutable PropertyListFile overrides_ GUARDED_BY(mutex_);
};

}  // namespace zun
