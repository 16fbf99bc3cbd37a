#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "RecordFile.h"
#include "platform/Mutex.h"
#include "values/Result.h"

namespace zun {

/// The posts received so far.
struct CollectedTotals {
  uint64_t posts = 0;
  uint64_t refusedPosts = 0;
  uint64_t events = 0;
  uint64_t wireBytes = 0;  // bodies as they came
  uint64_t bodyBytes = 0;  // bodies after decompression
};

/// Checks post bodies and keeps their records, one JSON object a line, just as they came.
/// Any thread.
class EventSink final {
 public:
  /// `file` outlives the sink.
  explicit EventSink(RecordFile& file) : file_(file) {}

  /// Takes the body of one post: {"postTime": ..., "clientId": ..., "events": [...]}.
  /// Either all of its records are kept or none. Gives the number of records, or why
  /// the body is refused.
  Result<uint64_t, std::string> accept(std::string_view body, uint64_t wireBytes) EXCLUDES(mutex_);

  [[nodiscard]] CollectedTotals totals() const EXCLUDES(mutex_);

 private:
  Result<uint64_t, std::string> refuse(std::string why) EXCLUDES(mutex_);

  RecordFile& file_;
  mutable Mutex mutex_;
  CollectedTotals totals_ GUARDED_BY(mutex_);
};

}  // namespace zun
