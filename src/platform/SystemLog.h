#pragma once

#include <fmt/format.h>

#include <string_view>

namespace zun {

/// Debug traces, default notes, error reports a failure.
enum class LogLevel { kDebug, kDefault, kError };

/// Where the system log goes. Auto: to the journal where standard error leads there
/// anyway, else to standard error.
enum class LogTarget { kAuto, kJournal, kStderr };

/// The system log. Lines are formatted only when their level is on. A log that is
/// slow or gone never fails the caller. Any thread.
class SystemLog {
 public:
  virtual ~SystemLog() = default;

  [[nodiscard]] virtual bool isEnabled(LogLevel level) const = 0;

  /// Writes one finished line. Call only when `level` is enabled.
  virtual void write(LogLevel level, std::string_view line) = 0;

  template <typename... Arguments>
  void debug(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    log(LogLevel::kDebug, format, std::forward<Arguments>(arguments)...);
  }

  template <typename... Arguments>
  void note(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    log(LogLevel::kDefault, format, std::forward<Arguments>(arguments)...);
  }

  template <typename... Arguments>
  void error(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    log(LogLevel::kError, format, std::forward<Arguments>(arguments)...);
  }

 private:
  template <typename... Arguments>
  void log(LogLevel level, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    if (isEnabled(level)) write(level, fmt::format(format, std::forward<Arguments>(arguments)...));
  }
};

}  // namespace zun
