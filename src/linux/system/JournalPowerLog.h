#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "linux/files/FileDescriptor.h"
#include "platform/Mutex.h"
#include "platform/PowerLog.h"
#include "platform/SystemLog.h"

namespace zun {

/// The power log beside a system log that goes to `target`: the journal where that is
/// the journal, else lines of the system log.
[[nodiscard]] std::unique_ptr<PowerLog> makePowerLog(LogTarget target, SystemLog& log);

/// One line of the system log, of default level, per event. Any thread.
class LinePowerLog final : public PowerLog {
 public:
  explicit LinePowerLog(SystemLog& log) : log_(log) {}

  void writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) override;

 private:
  SystemLog& log_;
};

/// One journal entry per event, with the fields ZUN_POWER_CATEGORY, ZUN_POWER_SENDER and
/// ZUN_POWER_EVENT (JSON), in the journal's own datagram protocol. A journal that does not
/// read costs one event a moment, then events until it reads again; how many is told.
/// Where there is no journal, events become lines of the system log.
///
/// Threading: any thread; one entry at a time. Ownership: `log` outlives it.
class JournalPowerLog final : public PowerLog {
 public:
  static constexpr std::string_view kJournalSocket = "/run/systemd/journal/socket";
  /// JSON beyond it is cut and ends with its length.
  static constexpr size_t kMaximumEventBytes = size_t{64} << 10;

  JournalPowerLog(SystemLog& log, std::string_view socketPath,
                  std::chrono::milliseconds patience = std::chrono::milliseconds(200));

  void writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) override;

 private:
  enum class Outcome { kWritten, kStalled, kAway };

  Outcome send(std::string_view entry) REQUIRES(mutex_);
  /// 0 or an errno.
  int sendOnce(std::string_view entry) REQUIRES(mutex_);
  int connect() REQUIRES(mutex_);
  bool waitUntilWritable() REQUIRES(mutex_);

  SystemLog& log_;
  LinePowerLog lines_;
  const std::string socketPath_;
  const std::chrono::milliseconds patience_;
  Mutex mutex_;
  FileDescriptor socket_ GUARDED_BY(mutex_);
  bool isStalled_ GUARDED_BY(mutex_) = false;
  uint64_t dropped_ GUARDED_BY(mutex_) = 0;
};

}  // namespace zun
