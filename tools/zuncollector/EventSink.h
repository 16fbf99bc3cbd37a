#pragma once

#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/Result.h"

namespace zun {

/// What has been received so far.
struct CollectedTotals {
  uint64_t posts = 0;
  uint64_t refusedPosts = 0;
  uint64_t events = 0;
  uint64_t wireBytes = 0;  // bodies as they came
  uint64_t bodyBytes = 0;  // bodies after decompression
};

/// Checks post bodies and keeps their records, one JSON object a line. Any thread.
class EventSink final {
 public:
  /// Appends to the file at `path`; an empty path keeps only the totals.
  explicit EventSink(const std::string& path);
  [[nodiscard]] bool isOpen() const { return path_.empty() || file_.is_open(); }

  /// Takes the body of one post: {"postTime": ..., "clientId": ..., "events": [...]}.
  /// Either all of its records are kept or none. Gives the number of records, or why
  /// the body is refused.
  Result<uint64_t, std::string> accept(std::string_view body, uint64_t wireBytes);

  [[nodiscard]] CollectedTotals totals() const;

 private:
  Result<uint64_t, std::string> refuse(std::string why);

  const std::string path_;
  mutable std::mutex mutex_;
  std::ofstream file_;
  CollectedTotals totals_;
};

}  // namespace zun
