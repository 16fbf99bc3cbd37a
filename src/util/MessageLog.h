#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Mutex.h"
#include "platform/PlatformServices.h"

namespace zun {

/// The plain-text diagnostic log that the platform's log collection picks up: one file
/// at most, renewed each day. A log that cannot be written never fails its caller.
///
/// A call looks at the folder, chooses the file and deletes what is out of date, unless the
/// folder is as it was less than a second before: the file stays open until then. One that would become too
/// large is begun anew. Only regular files are its own: whoever may write to the folder can put links there.
///
/// Threading: any thread; entries of one process are written one at a time.
class MessageLog final {
 public:
  static constexpr std::string_view kDirectory = "/var/mobile/Library/Logs/Quellar/Retired";

  /// Clients decide what is written, and how often.
  static constexpr uint64_t kMaximumBytes = uint64_t{64} << 20;

  explicit MessageLog(const PlatformServices& platform);

  /// Appends one entry, on the caller's thread.
  void writeToLogFile(std::string_view message);

 private:
  struct LogFile {
    std::string path;
    std::optional<Date> created;
  };

  /// The file that the last look at the folder found.
  struct Found {
    std::string path;
    double folderChanged = 0;  // seconds since 1970
    double when = 0;
    uint64_t size = 0;
  };

  void append(std::string_view message) REQUIRES(mutex_);
  std::optional<std::string> fileFor(const std::string& directory, uint64_t bytes,
                                     std::optional<Error>& failure) REQUIRES(mutex_);
  std::optional<Error> appendToFile(const std::string& path, const std::string& entry) REQUIRES(mutex_);
  std::optional<std::string> lookedUpFile(const std::string& directory, std::optional<Error>& failure)
      REQUIRES(mutex_);
  // What keeps these from finding or making a file goes into `failure`, the first of it.
  std::optional<std::string> currentFile(const std::string& directory, std::optional<Error>& failure)
      REQUIRES(mutex_);
  std::optional<std::string> createFile(const std::string& directory, std::optional<Error>& failure)
      REQUIRES(mutex_);
  void deleteFile(const LogFile& file) REQUIRES(mutex_);

  const PlatformServices& platform_;
  Mutex mutex_;
  std::optional<Found> found_ GUARDED_BY(mutex_);
  std::unique_ptr<AppendedFile> file_ GUARDED_BY(mutex_);  // that the last entry went into
  int lastFailure_ GUARDED_BY(mutex_) = 0;  // each event brings several messages: one line tells why
};

}  // namespace zun
