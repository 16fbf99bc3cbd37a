// Copies of messages for the client that aggregates its hierarchy.

#include <utility>

#include "session/ClientSessionReplyInterface.h"
#include "session/ReportingdSession.h"

namespace zun {

namespace {

/// User information goes with a payload, never without one.
std::optional<Dictionary> aggregatedPayload(const std::optional<Dictionary>& payload,
                                            const std::optional<Dictionary>& userInfo) {
  std::optional<Dictionary> aggregated = payload;
  if (aggregated && userInfo) aggregated->addEntries(*userInfo);
  return aggregated;
}

}  // namespace

void ReportingdSession::aggregateMessage(const std::optional<Dictionary>& sessionInfo, double timestamp,
                                         uint16_t category, uint16_t type,
                                         const std::optional<Dictionary>& payload) {
  const std::optional<Dictionary> aggregated = aggregatedPayload(payload, userInfo());
  if (mayHaveAncestors()) {
    std::shared_ptr<ReportingdSession> ancestor;  // let go of after the lock
    const RecursiveMutexLock lock(delegate_->objectLock());
    ancestor = delegate_->getAncestorWithAggregatorForSession(*this);
    if (ancestor) {
      ancestor->sendToAggregator(sessionInfo, timestamp, category, type, aggregated);
      return;
    }
  }
  const MutexLock lock(deliveryMutex_);
  if (hasAggregator_) deliverToClient(sessionInfo, timestamp, category, type, aggregated);
}

void ReportingdSession::sendToAggregator(const std::optional<Dictionary>& sessionInfo, double timestamp,
                                         uint16_t category, uint16_t type,
                                         const std::optional<Dictionary>& payload) {
  const MutexLock lock(deliveryMutex_);
  deliverToClient(sessionInfo, timestamp, category, type, payload);
}

void ReportingdSession::deliverToClient(const std::optional<Dictionary>& sessionInfo, double timestamp,
                                        uint16_t category, uint16_t type,
                                        const std::optional<Dictionary>& payload) {
  std::optional<std::string> failure =
      sendMessageToClient(*connection_, sessionInfo, timestamp, category, type, payload);
  // One line each time that a client is lost, not one for every message that others send.
  if (failure && failure != deliveryFailure_)
    log().error("sendMessageWithDictionary: Failed to get remote object proxy: {}", *failure);
  deliveryFailure_ = std::move(failure);
}

void ReportingdSession::shutdownSessionAggregation() {
  log().debug("shutdownSessionAggregation: Disable aggregation module for session {}", sessionID());
  const MutexLock lock(deliveryMutex_);
  if (!hasAggregator_) return;
  deliverToClient(std::nullopt, /*timestamp=*/0.0, /*category=*/0, /*type=*/0, std::nullopt);
  hasAggregator_ = false;
}

}  // namespace zun
