#pragma once

#include <cstdint>
#include <memory>

#include "platform/Mutex.h"
#include "platform/SerialQueue.h"
#include "platform/TimerService.h"
#include "platform/UniqueFunction.h"

namespace zun {

/// The running release timer of a connectivity helper with the callback that waits for
/// it and the queue that the callback belongs to. Each can be absent on its own: a
/// timer that was started over another one takes its place.
///
/// Threading: any thread. Ownership: shared by the helper and the timer's handlers, so
/// that a handler that comes after its helper still finds what it has to clear.
class ConnectivityReleaseTimer final {
 public:
  using Callback = UniqueFunction<void(int32_t usageCount)>;

  struct Waiting {
    Callback callback;                   // may be empty
    std::shared_ptr<SerialQueue> queue;  // may be null
  };

  void set(std::shared_ptr<TimerSource> timer, Waiting waiting);

  /// Cancels the timer if there is one; its cancel handler does the rest.
  void cancel();

  /// Takes the callback out; the queue stays until `clear`.
  [[nodiscard]] Waiting takeCallback();

  /// Empties all three and gives what was waiting.
  [[nodiscard]] Waiting clear();

 private:
  Mutex mutex_;
  std::shared_ptr<TimerSource> connectivityHelperReleaseTimer_ GUARDED_BY(mutex_);
  Callback connectivityHelperReleaseTimerBlock_ GUARDED_BY(mutex_);
  std::shared_ptr<SerialQueue> connectivityHelperReleaseTimerQueue_ GUARDED_BY(mutex_);
};

}  // namespace zun
