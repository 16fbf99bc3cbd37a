#include "session/SessionPosting.h"

#include <utility>

namespace zun {

namespace {

const char* describe(EventLoss cause) {
  switch (cause) {
    case EventLoss::kNoPostURL: return "the storebag has no post_url for it";
    case EventLoss::kNoConnectivityHelper:
      return "there is no user information, or the user has changed without a new start";
    case EventLoss::kHelperRefused: break;
  }
  return "the connectivity helper is not active";
}

}  // namespace

SessionPosting::~SessionPosting() {
  tellLosses();
}

void SessionPosting::tellLosses() {
  for (size_t cause = 0; cause < kEventLossCount; ++cause) {
    const size_t lost = lost_[cause];
    const size_t news = lost - std::exchange(told_[cause], lost);
    if (news == 0) continue;
    log_.note("postJSONMessage: session {} has lost {} events: {}", sessionID_.load(), news,
              describe(static_cast<EventLoss>(cause)));
  }
}

void SessionPosting::setReleaseTimeout(uint32_t seconds) {
  const MutexLock lock(mutex_);
  releaseTimeout_ = seconds;
}

void SessionPosting::setConnectivityHelper(std::shared_ptr<ReportingSessionConnectivityHelper> helper) {
  const MutexLock lock(mutex_);
  if (helper) helper->setReleaseTimeout(releaseTimeout_);
  helper_.swap(helper);
}

std::shared_ptr<ReportingSessionConnectivityHelper> SessionPosting::connectivityHelper() const {
  const MutexLock lock(mutex_);
  return helper_;
}

void SessionPosting::beginStart() {
  const MutexLock lock(mutex_);
  isStarting_ = true;
}

void SessionPosting::endStart(bool isAnyEnabled) {
  const MutexLock lock(mutex_);
  isStarting_ = false;
  if (std::exchange(isDueAtTheEnd_, false) || isAnyEnabled) activate();
}

void SessionPosting::activateOnce() {
  const MutexLock lock(mutex_);
  if (isStarting_) {
    isDueAtTheEnd_ = true;
  } else if (helper_ != activated_.lock()) {
    activate();
  }
}

void SessionPosting::activate() {
  if (helper_ == nullptr) return;
  helper_->activate(releaseTimeout_);
  activated_ = helper_;
}

void SessionPosting::eventsWereLost(EventLoss cause, size_t count) {
  const size_t before = lost_[static_cast<size_t>(cause)].fetch_add(count);
  if (before > 0) return;
  log_.error("postJSONMessage: session {} loses events: {}", sessionID_.load(), describe(cause));
}

}  // namespace zun
