#include "daemon/ReportingdAgent.h"

#include "session/ClientSessionObject.h"
#include "session/ClientSessionReplyInterface.h"
#include "storebag/ClientTypes.h"
#include "util/Conversions.h"

namespace zun {

namespace {

std::string userInfoKeyOf(const ReportingdSession& session) {
  return connectivityUserInfoKey(session.userInfo().value_or(Dictionary()));
}

}  // namespace

std::shared_ptr<ReportingdAgent> ReportingdAgent::create(const ReportingServices& services,
                                                         StorebagFetcher& fetcher) {
  const std::shared_ptr<ReportingdAgent> agent(new ReportingdAgent(services, fetcher));
  agent->sharedConnectivityHelpers_ = std::make_unique<SharedConnectivityHelpers>(
      services.platform, std::weak_ptr<QuorxTransactionHolder>(agent));
  return agent;
}

ReportingdAgent::ReportingdAgent(const ReportingServices& services, StorebagFetcher& fetcher)
    : services_(services),
      log_(services.platform.log),
      storebagCache_(fetcher, services.platform.clock, services.platform.log),
      correlatedSessions_(services.platform.log) {}

ReportingdAgent::~ReportingdAgent() = default;

std::string ReportingdAgent::description() const {
  return fmt::format("<ReportingdAgent: {}>", fmt::ptr(this));
}

// --- Clients -------------------------------------------------------------------

bool ReportingdAgent::isEntitled(const ServicePeer& peer) {
  if (peer.booleanEntitlement(kEntitlement).value_or(false)) return true;
  if (log_.isEnabled(LogLevel::kDebug)) {
    log_.debug(
        "listener: "
        "new Quorx connection {} does not have required zunreporting entitlement. Closing connection...",
        peer.description());
  }
  return false;
}

bool ReportingdAgent::shouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& connection) {
  if (!isEntitled(*connection)) return false;
  log_.debug("listener: Accepting new Quorx connection {} as it has proper entitlement, {}({}) connections.",
             connection->description(), sessionCount(), correlatedSessions_.tokenCount());

  connection->setExportedInterface(clientSessionInterface());
  connection->setRemoteObjectInterface(clientSessionReplyInterface());
  const auto session = createReportingSessionWithDelegate(shared_from_this(), connection);
  connection->setExportedObject(makeClientSessionObject(session));
  connection->setInterruptionHandler([this, agent = shared_from_this(), session] {
    log_.debug("listener: Quorx connection to {} was interrupted", session->description());
  });
  connection->setInvalidationHandler([this, agent = shared_from_this(), session] {
    log_.debug("listener: Quorx connection to {} was invalidated", session->description());
    invalidateReportingSession(session);
  });
  connection->resume();
  return true;
}

std::shared_ptr<ReportingdSession> ReportingdAgent::createReportingSessionWithDelegate(
    const std::shared_ptr<ReportingdSessionDelegate>& delegate,
    const std::shared_ptr<ServiceConnection>& connection) {
  auto session = ReportingdSession::create(services_, delegate, connection);
  const RecursiveMutexLock lock(objectLock_);
  if (quorxTransactionReference_ == 0) {
    services_.platform.transactions.begin();
    log_.debug("createReportingSessionWithDelegate: Quorx transaction started with session {}",
               session->description());
  }
  sessionList_.push_back(session);
  sessionCount_ = sessionList_.size();
  ++quorxTransactionReference_;
  log_.note("createReportingSessionWithDelegate: retained Quorx Transaction. Ref count is {}",
            quorxTransactionReference_);
  return session;
}

// The session comes by value: it must not end, and be torn down, under the lock.
void ReportingdAgent::invalidateReportingSession(std::shared_ptr<ReportingdSession> session) {
  const RecursiveMutexLock lock(objectLock_);
  // The token's list and shared values stay, so that a later session of the same
  // hierarchy finds them again.
  correlatedSessions_.removeSession(*session);
  const std::string description = session->description();
  std::erase(sessionList_, session);
  sessionCount_ = sessionList_.size();
  log_.debug("invalidateReportingSession: ReportingdSession {} was invalidated", description);
}

void ReportingdAgent::releaseQuorxTransactions(uint32_t count) {
  const RecursiveMutexLock lock(objectLock_);
  if (quorxTransactionReference_ < 1) return;
  quorxTransactionReference_ = static_cast<int32_t>(quorxTransactionReference_ - int64_t{count});
  log_.note("releaseQuorxTransactions: Quorx transaction ref count is {}, decremented by {}",
            quorxTransactionReference_, count);
  // A release beyond the count leaves it negative: the next session then counts up
  // without beginning a transaction.
  if (quorxTransactionReference_ < 1) {
    services_.platform.transactions.end();
    log_.note("releaseQuorxTransactions: Quorx transaction ended");
  }
}

// --- Storebags -----------------------------------------------------------------

std::optional<Dictionary> ReportingdAgent::storebagForSession(const ReportingdSession& session) {
  const int32_t clientType = clientTypeOfSessionInfo(session.sessionInfo());
  log_.debug("storebagForSession: Retrieving storebag for session {} with client type {}",
             session.sessionID(), clientType);
  return storebagCache_.storebagForClientType(clientType);
}

std::optional<std::string> ReportingdAgent::storebagVersionForSession(const ReportingdSession& session) {
  return storebagCache_.storebagVersionForClientType(clientTypeOfSessionInfo(session.sessionInfo()));
}

// --- Hierarchies ---------------------------------------------------------------

void ReportingdAgent::updateCorrelatedSessions(ReportingdSession& session) {
  if (!session.hierarchyToken()) {
    log_.note("updateCorrelatedSessions: Session {} has no correlated sessions as it is a standalone session",
              session.sessionID());
    const RecursiveMutexLock lock(objectLock_);
    correlatedSessions_.updateLevelOfStandaloneSession(session);
    return;
  }
  const RecursiveMutexLock lock(objectLock_);
  correlatedSessions_.updateCorrelatedSessions(session);
}

bool ReportingdAgent::claimHierarchy(const std::string& token, uint32_t user) {
  const RecursiveMutexLock lock(objectLock_);
  return correlatedSessions_.claim(token, user);
}

std::optional<std::string> ReportingdAgent::parentSessionIDStringForSession(ReportingdSession& session) {
  const RecursiveMutexLock lock(objectLock_);
  return correlatedSessions_.parentSessionIDString(session);
}

std::shared_ptr<ReportingdSession> ReportingdAgent::getAncestorWithAggregatorForSession(
    ReportingdSession& session) {
  const RecursiveMutexLock lock(objectLock_);
  return correlatedSessions_.getAncestorWithAggregator(session);
}

void ReportingdAgent::updateDownstreamSessions(ReportingdSession& session) {
  if (!session.hierarchyToken()) return;
  CorrelatedSessions::Sessions below;  // let go of after the lock
  std::shared_ptr<ReportingdSession> ancestor;
  const RecursiveMutexLock lock(objectLock_);
  session.updateCombinedSessionID();
  session.syncReportingStates();
  ancestor = correlatedSessions_.getAncestorWithAggregator(session);
  if (ancestor) session.shutdownSessionAggregation();

  below = correlatedSessions_.sessionsBelow(session);
  for (const auto& other : below) {
    log_.debug(
        "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session {}",
        other->sessionID());
    other->updateCombinedSessionID();
    other->syncReportingStates();
    // Of one hierarchy only the topmost aggregator goes on.
    if ((ancestor || session.hasAggregator()) && other->hasAggregator()) other->shutdownSessionAggregation();
  }
}

std::shared_ptr<ReportingdSession> ReportingdAgent::parentSessionForChild(ReportingdSession& session) {
  const RecursiveMutexLock lock(objectLock_);
  return correlatedSessions_.parentSessionForChild(session);
}

// --- Shared data ---------------------------------------------------------------

void ReportingdAgent::updateSharedDataForSession(ReportingdSession& session, const Dictionary& sharedData) {
  const RecursiveMutexLock lock(objectLock_);
  correlatedSessions_.updateSharedData(session, sharedData);
}

void ReportingdAgent::removeObjectFromSharedDataForSession(ReportingdSession& session,
                                                           const std::string& key) {
  const RecursiveMutexLock lock(objectLock_);
  correlatedSessions_.removeFromSharedData(session, key);
}

std::optional<Dictionary> ReportingdAgent::sharedDataForSession(ReportingdSession& session) {
  const RecursiveMutexLock lock(objectLock_);
  return correlatedSessions_.sharedData(session);
}

// --- State ---------------------------------------------------------------------

ReportingAgentState ReportingdAgent::copyReportingAgentState() {
  // Room is made outside the lock, for a few more than there are.
  constexpr size_t kNewcomers = 8;
  ReportingAgentState state;
  state.sessions.reserve(sessionCount() + kNewcomers);
  const RecursiveMutexLock lock(objectLock_);
  state.sessions.assign(sessionList_.begin(), sessionList_.end());
  state.cachedStorebags = storebagCache_.entries();
  return state;
}

// --- Connectivity helpers ------------------------------------------------------

std::shared_ptr<ReportingSessionConnectivityHelper>
ReportingdAgent::copySharedConnectivityHelperForReportingSession(const ReportingdSession& session,
                                                                 ConnectionMode mode) {
  return sharedConnectivityHelpers_->copySharedConnectivityHelper(userInfoKeyOf(session), mode);
}

void ReportingdAgent::releaseSharedConnectivityHelperForReportingSession(const ReportingdSession& session) {
  sharedConnectivityHelpers_->releaseSharedConnectivityHelper(userInfoKeyOf(session),
                                                              session.connectivityHelper());
}

}  // namespace zun
