#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Mutex.h"
#include "platform/PlatformServices.h"

namespace zun {

/// The plain-text diagnostic log that the platform's log collection picks up: one file
/// at most, renewed each day. A log that cannot be written never fails its caller.
///
/// Nothing is kept between calls: each one looks at the folder anew, chooses the file
/// and deletes what is out of date.
///
/// Threading: any thread; entries of one process are written one at a time.
class MessageLog final {
 public:
  static constexpr std::string_view kDirectory = "/var/mobile/Library/Logs/Quellar/Retired";

  explicit MessageLog(const PlatformServices& platform);

  /// Appends one entry, on the caller's thread.
  void writeToLogFile(std::string_view message);

 private:
  struct LogFile {
    std::string path;
    std::optional<Date> created;
  };

  void append(std::string_view message) REQUIRES(mutex_);
  std::optional<std::string> currentFile(const std::string& directory) REQUIRES(mutex_);
  std::optional<std::string> createFile(const std::string& directory) REQUIRES(mutex_);
  void deleteFile(const LogFile& file) REQUIRES(mutex_);

  const PlatformServices& platform_;
  Mutex mutex_;
};

}  // namespace zun
