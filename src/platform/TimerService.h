#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "platform/SerialQueue.h"
#include "platform/UniqueFunction.h"

namespace zun {

struct TimerOptions {
  std::chrono::nanoseconds firstFiring{};                 // from now
  std::optional<std::chrono::nanoseconds> interval = {};  // none: fires once
  std::chrono::nanoseconds leeway{};                      // how late it may be
};

/// A running timer. Letting go of it does not stop it: `cancel` does. Any thread.
class TimerSource {
 public:
  virtual ~TimerSource() = default;

  /// Ends the timer: no firing begins after this; the cancel handler is queued, once.
  /// A second call does nothing. A one-shot timer that has fired can be cancelled too.
  virtual void cancel() = 0;
};

/// Fires handlers on serial queues at their time. Any thread.
class TimerService {
 public:
  virtual ~TimerService() = default;

  /// Starts a timer whose handlers run on `queue`. `fired` may be called again and
  /// again; `cancelled` once, after `cancel`. The service keeps the timer and both
  /// handlers until it is cancelled or, for a one-shot, has fired.
  virtual std::shared_ptr<TimerSource> startTimer(const TimerOptions& options,
                                                  std::shared_ptr<SerialQueue> queue,
                                                  UniqueFunction<void()> fired,
                                                  UniqueFunction<void()> cancelled) = 0;
};

}  // namespace zun
