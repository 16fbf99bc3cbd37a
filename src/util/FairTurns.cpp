#include "util/FairTurns.h"

#include <algorithm>
#include <chrono>

namespace zun {

namespace {

// How soon one that waits notices that nobody wants what it waits for.
constexpr std::chrono::milliseconds kLongestWait{200};

template <typename Map>
void removeOne(Map& map, const typename Map::key_type& key) {
  const auto found = map.find(key);
  if (--found->second.count == 0) map.erase(found);
}

}  // namespace

FairTurns::Turn FairTurns::wait(BudgetHolder holder, const std::function<bool()>& isWanted) {
  const MutexLock lock(mutex_);
  ++users_[holder.user].count;
  ++members_[memberOf(holder)].count;
  const auto waiter = waiters_.insert(waiters_.end(), {holder});
  if (free_ > 0) callNext();
  while (!waiter->isCalled && isWanted()) called_.wait_for(mutex_, kLongestWait);
  const bool isCalled = waiter->isCalled;
  waiters_.erase(waiter);
  if (isCalled) return {this, holder};
  leave(holder);
  return {};
}

size_t FairTurns::waiting() const {
  const MutexLock lock(mutex_);
  return waiters_.size();
}

void FairTurns::leave(BudgetHolder holder) {
  removeOne(users_, holder.user);
  removeOne(members_, memberOf(holder));
}

void FairTurns::end(BudgetHolder holder) {
  const MutexLock lock(mutex_);
  leave(holder);
  ++free_;
  callNext();
}

void FairTurns::callNext() {
  const auto isBefore = [this](const auto& a, const auto& b) REQUIRES(mutex_) {
    if (a.isCalled != b.isCalled) return b.isCalled;
    if (a.holder.user != b.holder.user)
      return users_[a.holder.user].lastBegin < users_[b.holder.user].lastBegin;
    return members_[memberOf(a.holder)].lastBegin < members_[memberOf(b.holder)].lastBegin;
  };
  const auto next = std::min_element(waiters_.begin(), waiters_.end(), isBefore);
  if (next == waiters_.end() || next->isCalled) return;
  --free_;
  next->isCalled = true;
  users_[next->holder.user].lastBegin = ++begins_;
  members_[memberOf(next->holder)].lastBegin = begins_;
  called_.notify_all();
}

}  // namespace zun
