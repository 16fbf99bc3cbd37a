#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "platform/Mutex.h"

namespace zun::bench {

/// Events that are still to be sent, handed out to all clients of a run. Any thread.
class Work final {
 public:
  explicit Work(uint64_t events) : events_(events) {}
  /// Never more than `most` are ahead of what `done` counts.
  Work(uint64_t events, uint64_t most, std::function<uint64_t()> done)
      : events_(events), most_(most), done_(std::move(done)), before_(done_()) {}

  /// At most `wanted`, the number of the first of them in `first`; 0 when all are handed out.
  /// Waits until there may be more.
  uint64_t take(uint64_t wanted, uint64_t& first);
  /// Until all that was handed out is done.
  void waitUntilDone() const;

 private:
  Mutex mutex_;
  const uint64_t events_;
  const uint64_t most_ = 0;
  const std::function<uint64_t()> done_;
  const uint64_t before_ = 0;
  uint64_t given_ GUARDED_BY(mutex_) = 0;
};

}  // namespace zun::bench
