// Copies of messages for the client that aggregates its hierarchy.

#include <utility>

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
  const auto encode = [&] {
    return encodeMessageToClient(*connection_, sessionInfo, timestamp, category, type,
                                 aggregatedPayload(payload, userInfo()));
  };
  hadAggregatingAncestor_ = mayHaveAncestors() && sendToAncestor(encode);
  if (!hadAggregatingAncestor_ && hasAggregator()) aggregator_.send(encode());
}

/// True when the topmost ancestor that aggregates, rather than the nearest, has got it: of
/// one hierarchy one client alone gathers, and sees it whole.
///
/// Under the agent's lock, so that the ancestor neither ends nor moves meanwhile, but
/// encoded before it: every client's start needs that lock. Whether there is an ancestor
/// is mostly as it was for the last message; one that turns up has its copy made between
/// two looks.
bool ReportingdSession::sendToAncestor(const std::function<MessageToClient()>& encode) {
  std::optional<MessageToClient> message;
  if (hadAggregatingAncestor_) message = encode();
  for (;;) {
    std::shared_ptr<ReportingdSession> ancestor;  // let go of after the lock
    {
      const RecursiveMutexLock lock(delegate_->objectLock());
      ancestor = delegate_->getAncestorWithAggregatorForSession(*this);
      if (ancestor && message) ancestor->aggregator_.send(*message);
    }
    if (ancestor == nullptr || message) return ancestor != nullptr;
    message = encode();
  }
}

void ReportingdSession::shutdownSessionAggregation() {
  log().debug("shutdownSessionAggregation: Disable aggregation module for session {}", sessionID());
  aggregator_.shutdown();
}

}  // namespace zun
