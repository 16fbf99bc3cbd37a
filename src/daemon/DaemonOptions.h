#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "platform/SystemLog.h"

namespace zun {

/// What the command line says.
struct DaemonOptions {
  std::string listenPath;  // empty: the named service's socket under the root
  std::string root;        // empty: the real root
  std::string resources;   // empty: the installed resources under the root
  std::string caFile;      // empty: the system's certificate store
  LogLevel logLevel = LogLevel::kDefault;
  LogTarget logTarget = LogTarget::kAuto;
  std::optional<std::chrono::seconds> idleExit;  // none: never
  std::chrono::seconds stopGrace{20};
  uint32_t maxConnections = 4096;
  uint32_t maxConnectionsPerUser = 256;

  static constexpr const char* kServiceSocket = "/run/zunreportingd/com.vantix.zunreportingd";
  static constexpr const char* kResources = "/usr/share/zunreportingd";
};

/// The options, or the exit code with which the process ends: 0 after --help and
/// --version, 2 after an error. Texts have been printed then.
[[nodiscard]] std::variant<DaemonOptions, int> parseDaemonOptions(int argc, const char* const* argv,
                                                                  const std::string& version);

}  // namespace zun
