#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "linux/system/JournalWriter.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"

namespace zun {

/// The daemon's log: lines of `level` and above, to `target`. The journal is that below `root`.
[[nodiscard]] std::unique_ptr<SystemLog> makeSystemLog(LogTarget target, LogLevel level,
                                                       const std::string& root);

/// True if `descriptor` is the stream that `journalStream` ("device:inode", as the
/// service manager gives it in JOURNAL_STREAM; may be null) names.
[[nodiscard]] bool isJournalStream(int descriptor, const char* journalStream);

/// Writes to the systemd journal, with priorities debug, notice and err, and never waits
/// for it. Any thread.
class JournalLog final : public SystemLog {
 public:
  explicit JournalLog(LogLevel level, std::string_view socketPath = JournalWriter::kJournalSocket)
      : level_(level), journal_(socketPath) {}

  [[nodiscard]] bool isEnabled(LogLevel level) const override { return level >= level_; }
  void write(LogLevel level, std::string_view line) override;
  void writeOut() override { journal_.writeOut(); }

  /// Where its lines go: other entries of the process keep their order with them.
  [[nodiscard]] JournalWriter& journal() { return journal_; }

 private:
  const LogLevel level_;
  JournalWriter journal_;
};

/// Writes "zunreportingd[pid] level: line" to a descriptor. Control characters of the
/// text are escaped, so that one line stays one line. A reader that has gone is not
/// missed; one that does not read costs a moment once, then lines until it reads again.
///
/// Threading: any thread; lines are written one at a time. Ownership: the descriptor
/// stays the caller's and outlives the log.
class StreamLog final : public SystemLog {
 public:
  StreamLog(int descriptor, LogLevel level);

  [[nodiscard]] bool isEnabled(LogLevel level) const override { return level >= level_; }
  void write(LogLevel level, std::string_view line) override;

 private:
  void writeLine(std::string_view line) REQUIRES(mutex_);
  /// As `write(2)`, but gives up on a reader that does not read.
  ssize_t writeSome(std::string_view text) REQUIRES(mutex_);
  bool waitUntilWritable() REQUIRES(mutex_);

  const int descriptor_;
  const LogLevel level_;
  const bool isSocket_;
  const std::string prefix_;
  Mutex mutex_;
  bool isStalled_ GUARDED_BY(mutex_) = false;
  bool isTorn_ GUARDED_BY(mutex_) = false;
};

}  // namespace zun
