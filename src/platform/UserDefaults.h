#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "values/Value.h"

namespace zun {

/// The daemon's own suite.
inline constexpr std::string_view kReportingSuite = "com.vantix.zunreporting";

/// A change of a suite that is written and only has to be shown. Letting go of it drops it,
/// or does what is left of the waiting for the disk where it was published; other writers
/// of the suite wait until then. One thread at a time.
class StagedDefaults {
 public:
  virtual ~StagedDefaults() = default;

  /// Shows all of it at once, without waiting. Once.
  virtual void publish() = 0;
};

/// Persistent settings: one dictionary per suite (domain), kept on disk. Every call
/// sees what is on disk now. A suite that cannot be read is an error line; a value that cannot be written is
/// an error line and lost. Any thread.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  /// The value under `key`, or none; nothing where the machine, and not the file, is why the
  /// suite cannot be read just now. A file that is no suite counts as an empty one.
  [[nodiscard]] virtual std::optional<Value> objectIfReadable(std::string_view suite,
                                                              std::string_view key) const = 0;

  /// The same, where a suite that cannot be read counts as empty too.
  [[nodiscard]] Value objectForKey(std::string_view suite, std::string_view key) const {
    return objectIfReadable(suite, key).value_or(Value());
  }

  /// How many keys begin with `prefix`.
  [[nodiscard]] virtual size_t countOfKeys(std::string_view suite, std::string_view prefix) const = 0;

  /// Waits for other writers, of this and other processes, and for the disk. None removes a
  /// key; null where nothing changes by that or, after an error line, nothing can.
  [[nodiscard]] virtual std::unique_ptr<StagedDefaults> stageObjects(
      std::string_view suite, std::vector<std::pair<std::string_view, Value>> objects) = 0;

  /// Both steps at once.
  void setObject(std::string_view suite, std::string_view key, Value value) {
    std::vector<std::pair<std::string_view, Value>> objects;
    objects.emplace_back(key, std::move(value));
    if (const auto staged = stageObjects(suite, std::move(objects))) staged->publish();
  }

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
