#pragma once

#include <fmt/format.h>

#include <atomic>
#include <string>
#include <string_view>
#include <utility>

namespace zun {

/// Debug traces, default notes, error reports a failure.
enum class LogLevel { kDebug, kDefault, kError };

/// Where the system log goes. Auto: to the journal where standard error leads there
/// anyway, else to standard error.
enum class LogTarget { kAuto, kJournal, kStderr };

/// The system log. Lines are formatted only when their level is on. A log that is
/// slow or gone never fails the caller. Any thread.
///
/// What clients and servers send is part of many lines, so a line has a bound: what is
/// longer is cut and ends with its length. The first one is followed by an error line.
class SystemLog {
 public:
  static constexpr size_t kMaximumLineBytes = size_t{16} << 10;

  virtual ~SystemLog() = default;

  [[nodiscard]] virtual bool isEnabled(LogLevel level) const = 0;

  /// Writes one finished line. Call only when `level` is enabled.
  virtual void write(LogLevel level, std::string_view line) = 0;

  /// Writes out what waits, for a moment at most: for processes that end without their
  /// destructors.
  virtual void writeOut() {}

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
    if (!isEnabled(level)) return;
    std::string line = fmt::format(format, std::forward<Arguments>(arguments)...);
    if (line.size() > kMaximumLineBytes) [[unlikely]] {
      writeCut(level, std::move(line));
    } else {
      write(level, line);
    }
  }

  void writeCut(LogLevel level, std::string line);

  std::atomic<bool> hasToldOfCut_{false};
};

}  // namespace zun
