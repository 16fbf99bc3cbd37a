#pragma once

#include <cstdint>
#include <memory>

#include "platform/Mutex.h"
#include "platform/SerialQueue.h"
#include "platform/TimerService.h"
#include "platform/UniqueFunction.h"

namespace zun {

/// One run of a connectivity helper's release timer, with the callback that waits for it
/// and the queue that the callback belongs to. Each run has its own: the end of one that
/// was stopped is told of late, when the next may be under way.
///
/// Threading: any thread. Ownership: shared by the helper and the timer's handlers, so
/// that a handler that comes after its helper still finds what it has to clear.
class ConnectivityReleaseTimer final {
 public:
  using Callback = UniqueFunction<void(int32_t usageCount)>;

  struct Waiting {
    Callback callback;                   // may be empty
    std::shared_ptr<SerialQueue> queue;  // may be null
    int32_t usageCount = 0;              // when the timer was stopped
  };

  void set(std::shared_ptr<TimerSource> timer, Waiting waiting);

  /// Cancels the timer; its cancel handler does the rest. The callback hears `usageCount`:
  /// the owner that came and stopped the timer may have gone before it is called.
  void cancel(int32_t usageCount);

  /// Takes the callback out; the queue stays until `clear`.
  [[nodiscard]] Waiting takeCallback();

  /// Empties all three and gives what was waiting.
  [[nodiscard]] Waiting clear();

 private:
  Mutex mutex_;
  int32_t usageCount_ GUARDED_BY(mutex_) = 0;
  std::shared_ptr<TimerSource> connectivityHelperReleaseTimer_ GUARDED_BY(mutex_);
  Callback connectivityHelperReleaseTimerBlock_ GUARDED_BY(mutex_);
  std::shared_ptr<SerialQueue> connectivityHelperReleaseTimerQueue_ GUARDED_BY(mutex_);
};

}  // namespace zun
