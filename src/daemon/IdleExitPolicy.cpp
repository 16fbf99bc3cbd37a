#include "daemon/IdleExitPolicy.h"

#include <algorithm>

namespace zun {

namespace {

/// As good as never, and far from any overflow.
constexpr std::chrono::seconds kLongestIdleTime = std::chrono::hours(24 * 365 * 100);

}  // namespace

IdleExitPolicy::IdleExitPolicy(std::optional<std::chrono::seconds> idleTime) : idleTime_(idleTime) {
  if (idleTime_) idleTime_ = std::clamp(*idleTime_, std::chrono::seconds(0), kLongestIdleTime);
}

void IdleExitPolicy::transactionChanged(bool isOpen, Time now) {
  if (isTransactionOpen_ && !isOpen) hasWorked_ = true;
  isTransactionOpen_ = isOpen;
  update(now);
}

void IdleExitPolicy::connectionsChanged(size_t open, Time now) {
  connections_ = open;
  update(now);
}

std::optional<IdleExitPolicy::Time> IdleExitPolicy::exitTime() const {
  if (!idleTime_ || !idleSince_) return std::nullopt;
  return *idleSince_ + *idleTime_;
}

bool IdleExitPolicy::shouldExit(Time now) const {
  const std::optional<Time> due = exitTime();
  return due && now >= *due;
}

void IdleExitPolicy::update(Time now) {
  if (!hasWorked_ || isTransactionOpen_ || connections_ > 0) {
    idleSince_.reset();
  } else if (!idleSince_) {
    idleSince_ = now;
  }
}

}  // namespace zun
