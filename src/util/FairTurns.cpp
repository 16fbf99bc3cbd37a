#include "util/FairTurns.h"

#include <algorithm>
#include <chrono>

namespace zun {

namespace {

// How soon one that waits notices that nobody wants what it waits for.
constexpr std::chrono::milliseconds kLongestWait{200};

}  // namespace

FairTurns::Turn FairTurns::wait(uint32_t user, const std::function<bool()>& isWanted) {
  const MutexLock lock(mutex_);
  ++users_[user].present;
  const auto waiter = waiters_.insert(waiters_.end(), {user});
  if (free_ > 0) callNext();
  while (!waiter->isCalled && isWanted()) called_.wait_for(mutex_, kLongestWait);
  const bool isCalled = waiter->isCalled;
  waiters_.erase(waiter);
  if (isCalled) return {this, user};
  leave(user);
  return {};
}

size_t FairTurns::waiting() const {
  const MutexLock lock(mutex_);
  return waiters_.size();
}

void FairTurns::leave(uint32_t user) {
  const auto found = users_.find(user);
  if (--found->second.present == 0) users_.erase(found);
}

void FairTurns::end(uint32_t user) {
  const MutexLock lock(mutex_);
  leave(user);
  ++free_;
  callNext();
}

void FairTurns::callNext() {
  const auto isBefore = [this](const auto& a, const auto& b) REQUIRES(mutex_) {
    if (a.isCalled != b.isCalled) return b.isCalled;
    return users_[a.user].lastBegin < users_[b.user].lastBegin;
  };
  const auto next = std::min_element(waiters_.begin(), waiters_.end(), isBefore);
  if (next == waiters_.end() || next->isCalled) return;
  --free_;
  next->isCalled = true;
  users_[next->user].lastBegin = ++begins_;
  called_.notify_all();
}

}  // namespace zun
