#include "connectivity/ConnectivityReleaseTimer.h"

#include <utility>

namespace zun {

void ConnectivityReleaseTimer::set(std::shared_ptr<TimerSource> timer, Waiting waiting) {
  const MutexLock lock(mutex_);
  connectivityHelperReleaseTimer_ = std::move(timer);
  connectivityHelperReleaseTimerBlock_ = std::move(waiting.callback);
  connectivityHelperReleaseTimerQueue_ = std::move(waiting.queue);
}

void ConnectivityReleaseTimer::cancel(int32_t usageCount) {
  std::shared_ptr<TimerSource> timer;
  {
    const MutexLock lock(mutex_);
    usageCount_ = usageCount;
    timer = connectivityHelperReleaseTimer_;
  }
  if (timer) timer->cancel();
}

ConnectivityReleaseTimer::Waiting ConnectivityReleaseTimer::takeCallback() {
  const MutexLock lock(mutex_);
  return {std::exchange(connectivityHelperReleaseTimerBlock_, nullptr), connectivityHelperReleaseTimerQueue_,
          usageCount_};
}

ConnectivityReleaseTimer::Waiting ConnectivityReleaseTimer::clear() {
  std::shared_ptr<TimerSource> timer;
  const MutexLock lock(mutex_);
  connectivityHelperReleaseTimer_.swap(timer);
  return {std::exchange(connectivityHelperReleaseTimerBlock_, nullptr),
          std::exchange(connectivityHelperReleaseTimerQueue_, nullptr), usageCount_};
}

}  // namespace zun
