#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <thread>

#include "linux/files/FileDescriptor.h"
#include "platform/Mutex.h"

namespace zun {

/// Appends a field in the journal's own form: with its length in front, so that a value
/// may hold whatever it likes.
void appendJournalField(std::string& entry, std::string_view name, std::string_view value);

/// Hands entries to the journal from a thread of its own, so that nobody who writes ever
/// waits for it. Entries that a slow journal leaves no room for are dropped, and an entry
/// tells how many. A journal that is not there takes nothing, silently.
///
/// Threading: any thread. At the end what waits is written out, for a moment at most.
class JournalWriter final {
 public:
  static constexpr std::string_view kJournalSocket = "/run/systemd/journal/socket";
  /// Of entries that wait.
  static constexpr size_t kMaximumWaitingBytes = size_t{1} << 20;

  /// `patience`: how long what waits may take in the end.
  explicit JournalWriter(std::string_view socketPath,
                         std::chrono::milliseconds patience = std::chrono::seconds(1));
  ~JournalWriter();
  JournalWriter(const JournalWriter&) = delete;
  JournalWriter& operator=(const JournalWriter&) = delete;

  /// Never waits for the journal.
  void write(std::string entry) EXCLUDES(mutex_);
  /// Returns once nothing waits any more, or the patience is over.
  void writeOut() EXCLUDES(mutex_);

 private:
  void add(std::string entry) REQUIRES(mutex_);
  void tellDropped() REQUIRES(mutex_);

  // The writer's thread.
  void run() noexcept;
  void send(std::string_view entry);
  int sendOnce(std::string_view entry);  // 0 or an errno
  int connect();                         // 0 or an errno

  const std::string socketPath_;
  const std::chrono::milliseconds patience_;
  FileDescriptor socket_;  // the writer's thread
  std::atomic<bool> hasGivenUp_{false};
  Mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<std::string> waiting_ GUARDED_BY(mutex_);
  size_t waitingBytes_ GUARDED_BY(mutex_) = 0;
  uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  bool isEnding_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace zun
