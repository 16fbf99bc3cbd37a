#pragma once

#include <string>
#include <string_view>

#include "platform/Mutex.h"

namespace zun {

/// The file that everything received is appended to, one JSON object a line.
///
/// A line is whole or not there: what a full disk cuts off is taken back, and where that
/// cannot be done (no regular file, or somebody else has appended since) the next line
/// begins on a line of its own. So does the first one after whatever cut the file before.
///
/// Threading: any thread.
class RecordFile final {
 public:
  /// Opens the file at `path`, or makes it; an empty path keeps nothing.
  explicit RecordFile(std::string path);
  ~RecordFile();
  RecordFile(const RecordFile&) = delete;
  RecordFile& operator=(const RecordFile&) = delete;

  [[nodiscard]] bool isOpen() const { return path_.empty() || descriptor_ >= 0; }

  /// Appends `lines`, which end with a line feed: all of them or none. An error text when
  /// they could not be written.
  [[nodiscard]] std::string append(std::string_view lines) EXCLUDES(mutex_);

 private:
  std::string write(std::string_view bytes, size_t& written) const;
  void takeBack(size_t written) REQUIRES(mutex_);

  const std::string path_;
  const int descriptor_;
  Mutex mutex_;
  bool endsWithinALine_ GUARDED_BY(mutex_) = false;
};

}  // namespace zun
