#include "connectivity/ConnectivityReleaseTimer.h"

#include <utility>

namespace zun {

void ConnectivityReleaseTimer::set(std::shared_ptr<TimerSource> timer, Waiting waiting) {
  // What is replaced goes into the parameters and is let go of after the lock.
  const MutexLock lock(mutex_);
  std::swap(connectivityHelperReleaseTimer_, timer);
  std::swap(connectivityHelperReleaseTimerBlock_, waiting.callback);
  std::swap(connectivityHelperReleaseTimerQueue_, waiting.queue);
}

void ConnectivityReleaseTimer::cancel() {
  std::shared_ptr<TimerSource> timer;
  {
    const MutexLock lock(mutex_);
    timer = connectivityHelperReleaseTimer_;
  }
  if (timer) timer->cancel();
}

ConnectivityReleaseTimer::Waiting ConnectivityReleaseTimer::takeCallback() {
  const MutexLock lock(mutex_);
  return {std::exchange(connectivityHelperReleaseTimerBlock_, nullptr), connectivityHelperReleaseTimerQueue_};
}

ConnectivityReleaseTimer::Waiting ConnectivityReleaseTimer::clear() {
  std::shared_ptr<TimerSource> timer;
  const MutexLock lock(mutex_);
  connectivityHelperReleaseTimer_.swap(timer);
  return {std::exchange(connectivityHelperReleaseTimerBlock_, nullptr),
          std::exchange(connectivityHelperReleaseTimerQueue_, nullptr)};
}

}  // namespace zun
