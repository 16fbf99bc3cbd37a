#include "support/Fakes.h"

#include <algorithm>
#include <utility>

namespace zun {

struct FakeTimers::Timer final : TimerSource, std::enable_shared_from_this<Timer> {
  explicit Timer(std::shared_ptr<SerialQueue> queueToUse) : queue(std::move(queueToUse)) {}

  void cancel() override {
    const std::lock_guard lock(mutex);
    if (isCancelled) return;
    isCancelled = true;
    // The handlers are let go of on the queue, where a firing may be under way.
    queue->async([self = shared_from_this()] {
      const UniqueFunction<void()> handler = std::exchange(self->cancelled, nullptr);
      self->fired = nullptr;
      if (handler) handler();
    });
  }

  /// Runs the firing handler unless the timer was cancelled meanwhile.
  void fire() {
    {
      const std::lock_guard lock(mutex);
      if (isCancelled) return;
    }
    fired();
  }

  std::mutex mutex;
  std::shared_ptr<SerialQueue> queue;
  UniqueFunction<void()> fired;
  UniqueFunction<void()> cancelled;
  bool isCancelled = false;
  bool isDone = false;
  std::chrono::nanoseconds due{};
  std::optional<std::chrono::nanoseconds> interval;
};

std::shared_ptr<TimerSource> FakeTimers::startTimer(const TimerOptions& options,
                                                    std::shared_ptr<SerialQueue> queue,
                                                    UniqueFunction<void()> fired,
                                                    UniqueFunction<void()> cancelled) {
  if (isRefusing) return nullptr;
  auto timer = std::make_shared<Timer>(std::move(queue));
  timer->fired = std::move(fired);
  timer->cancelled = std::move(cancelled);
  timer->due = clock_.monotonic() + options.firstFiring;
  timer->interval = options.interval;
  const std::lock_guard lock(mutex_);
  if (!hasEnded_) timers_.push_back(timer);
  started_.push_back(options);
  return timer;
}

void FakeTimers::end() {
  std::vector<std::shared_ptr<Timer>> timers;  // let go of after the lock
  const std::lock_guard lock(mutex_);
  hasEnded_ = true;
  timers.swap(timers_);
}

void FakeTimers::fireDue() {
  std::vector<std::shared_ptr<Timer>> due;
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(timers_, [](const auto& timer) {
      const std::lock_guard timerLock(timer->mutex);
      return timer->isCancelled || timer->isDone;
    });
    for (const auto& timer : timers_) {
      if (timer->due > clock_.monotonic()) continue;
      due.push_back(timer);
      if (timer->interval) {
        timer->due += *timer->interval;
      } else {
        timer->isDone = true;
      }
    }
  }
  for (const auto& timer : due) {
    timer->queue->async([timer] { timer->fire(); });
  }
}

size_t FakeTimers::running() const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count_if(timers_.begin(), timers_.end(), [](const auto& timer) {
    const std::lock_guard timerLock(timer->mutex);
    return !timer->isCancelled && !timer->isDone;
  }));
}

std::vector<TimerOptions> FakeTimers::started() const {
  const std::lock_guard lock(mutex_);
  return started_;
}

}  // namespace zun
