#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "values/Value.h"

namespace zun {

/// The daemon's own suite.
inline constexpr std::string_view kReportingSuite = "com.vantix.zunreporting";

/// Persistent settings: one dictionary per suite (domain), kept on disk. Every call
/// sees what is on disk now. A suite that cannot be read is an error line and counts
/// as empty; a value that cannot be written is an error line and lost. Any thread.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  /// The value under `key`, or none.
  [[nodiscard]] virtual Value objectForKey(std::string_view suite, std::string_view key) const = 0;

  /// How many keys begin with `prefix`.
  [[nodiscard]] virtual size_t countOfKeys(std::string_view suite, std::string_view prefix) const = 0;

  /// None removes the key.
  virtual void setObject(std::string_view suite, std::string_view key, Value value) = 0;

  /// The value as text if it is a string or a number, else none.
  [[nodiscard]] std::optional<std::string> stringForKey(std::string_view suite, std::string_view key) const {
    const Value value = objectForKey(suite, key);
    if (!value.isString() && !value.isNumber()) return std::nullopt;
    return value.description();
  }
};

/// The platform's setting: may diagnostic data leave the device? Absent means no.
[[nodiscard]] inline bool diagnosticSubmissionEnabled(const UserDefaults& defaults) {
  return defaults.objectForKey("com.vantix.diagnostics", "DiagnosticSubmissionEnabled").boolValue();
}

}  // namespace zun
