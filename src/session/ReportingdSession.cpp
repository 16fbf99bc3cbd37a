#include "session/ReportingdSession.h"

#include <cstring>
#include <utility>

#include "values/Base64.h"
#include "zunreporting/Keys.h"

namespace zun {

using namespace zunreporting;

namespace {

constexpr std::string_view kTimeZoneSuite = "com.vantix.timed";

std::string makeSessionIDString(RandomSource& random) {
  return base64Encode(asText(random.uuidBytes()));
}

/// `services` for what this connection's client has the daemon keep.
ReportingServices servicesFor(ReportingServices services, const ServiceConnection& connection) {
  services.holder = connection.budgetHolder();
  services.program = connection.programHolder();
  return services;
}

/// A missing value equals nothing, not even another missing value.
bool differs(std::string_view key, const Dictionary& before, const Dictionary& after) {
  const Value& left = before[key];
  const Value& right = after[key];
  return !left.isString() || !right.isString() || left.stringValue() != right.stringValue();
}

std::optional<std::string> chooseDisplayURL(const BackendTable& backends) {
  for (const auto& [name, backend, role] : backends.entries) {
    if (name.find(kZunReportingBackendHTTPPost) == std::string::npos) continue;
    if (auto displayURL = backend->displayURL()) return displayURL;
  }
  for (const std::string_view name : {kZunReportingBackendHTTPPost2, kZunReportingBackendDashboard}) {
    ZunReportingBackend* const backend = backends.find(name);
    if (backend == nullptr) continue;
    if (auto displayURL = backend->displayURL()) return displayURL;
  }
  return std::nullopt;
}

}  // namespace

// Creation

std::shared_ptr<ReportingdSession> ReportingdSession::create(
    const ReportingServices& services, std::shared_ptr<ReportingdSessionDelegate> delegate,
    std::shared_ptr<ServiceConnection> connection, BackendFactory backendFactory) {
  return {
      new ReportingdSession(services, std::move(delegate), std::move(connection), std::move(backendFactory)),
      &ReportingdSession::tearDown};
}

ReportingdSession::ReportingdSession(const ReportingServices& services,
                                     std::shared_ptr<ReportingdSessionDelegate> delegate,
                                     std::shared_ptr<ServiceConnection> connection,
                                     BackendFactory backendFactory)
    : services_(servicesFor(services, *connection)),
      delegate_(std::move(delegate)),
      connection_(std::move(connection)),
      backendFactory_(std::move(backendFactory)),
      sessionIDString_(makeSessionIDString(services.platform.random)),
      posting_(std::make_shared<SessionPosting>(services.platform.log)),
      aggregator_(connection_, services.platform.log) {
  if (log().isEnabled(LogLevel::kDebug)) {
    log().debug("initWithSessionDelegate: ReportingdSession initWithSessionDelegate:{}",
                delegate_->description());
  }
  services_.identity.copyUniqueDeviceID(deviceid_);
  log().debug("initWithSessionDelegate: Initialized session with UUID {}", sessionIDString_);
}

// Any thread

Dictionary ReportingdSession::sessionInfo() const {
  return configuredSessionInfo().value_or(Dictionary());
}

std::optional<Dictionary> ReportingdSession::configuredSessionInfo() const {
  const MutexLock lock(mutex_);
  return shared_.sessionInfo;
}

std::optional<Dictionary> ReportingdSession::userInfo() const {
  const MutexLock lock(mutex_);
  return shared_.userInfo;
}

uint32_t ReportingdSession::hierarchyLevel() const {
  const MutexLock lock(mutex_);
  return shared_.hierarchyLevel;
}

std::optional<std::string> ReportingdSession::hierarchyToken() const {
  const MutexLock lock(mutex_);
  return shared_.hierarchyToken;
}

std::shared_ptr<const BackendTable> ReportingdSession::backendsSnapshot() const {
  const MutexLock lock(mutex_);
  return shared_.backends;
}

std::string ReportingdSession::description() const {
  return fmt::format("<ReportingdSession {} {}>", sessionID(), sessionIDString_);
}

// Configuration

SessionDescription ReportingdSession::currentDescription() const {
  return {sessionInfo(), userInfo(), frameworks_, digestKey_};
}

std::optional<ClientSessionInterface::Refusal> ReportingdSession::refusalOf(
    const SessionDescription& description, std::string_view operation) const {
  const size_t bytes = description.allocatedBytes();
  if (bytes <= SessionDescription::kMaximumBytes) return std::nullopt;
  log().error("{}: What describes session {} would take {} bytes, {} are allowed", operation, sessionID(),
              bytes, SessionDescription::kMaximumBytes);
  return Refusal{
      ServiceReply::kLimitsExceeded,
      fmt::format("Session and user information, frameworks and digest key may take {} bytes in memory, "
                  "these would take {}",
                  SessionDescription::kMaximumBytes, bytes)};
}

std::optional<ClientSessionInterface::Refusal> ReportingdSession::setSessionInfo(
    const Dictionary& sessionInfo, const std::optional<Dictionary>& userInfo, const Array& frameworksToCheck,
    bool hasAggregationBlock) {
  if (auto refusal = refusalOf({sessionInfo, userInfo, frameworksToCheck, digestKey_}, "setSessionInfo")) {
    return refusal;
  }
  adoptSessionInfo(sessionInfo);
  log().debug("setSessionInfo: Configuring session {}", sessionID());
  if (userInfo && !sessionInfo[kZunReportingSessionInfoRequireUserInfo].boolValue())
    log().error("setSessionInfo: Configure session: user info provided without requiring it");

  delegate_->updateCorrelatedSessions(*this);
  frameworks_ = frameworksToCheck;
  updateUserInfo(userInfo);
  aggregator_.setOpen(hasAggregationBlock);
  return std::nullopt;
}

void ReportingdSession::adoptSessionInfo(const Dictionary& sessionInfo) {
  sessionID_ = static_cast<uint32_t>(sessionInfo[kZunReportingSessionInfoSessionID].intValue());
  posting_->setSessionID(sessionID_);
  uint32_t level = 0;
  std::optional<std::string> token;
  if (const Dictionary* hierarchy = sessionInfo[kZunReportingSessionInfoHierarchyToken].dictionary()) {
    level = static_cast<uint32_t>((*hierarchy)[kZunReportingHierarchyTokenLevel].int32Value());
    token = (*hierarchy)[kZunReportingHierarchyTokenTokenID].string();
  }
  hasHierarchyToken_ = token.has_value();
  const MutexLock lock(mutex_);
  shared_.sessionInfo = sessionInfo;
  shared_.hierarchyLevel = level;
  shared_.hierarchyToken = std::move(token);
}

void ReportingdSession::releaseUserInfo() {
  if (userInfo()) {
    // The agent finds the helper by the user information, so it still has to be there.
    delegate_->releaseSharedConnectivityHelperForReportingSession(*this);
    const MutexLock lock(mutex_);
    shared_.userInfo.reset();
  }
  posting_->setConnectivityHelper(nullptr);
}

void ReportingdSession::updateUserInfo(const std::optional<Dictionary>& userInfo) {
  releaseUserInfo();
  if (!userInfo) return;
  {
    const MutexLock lock(mutex_);
    shared_.userInfo = userInfo;
  }
  posting_->setConnectivityHelper(delegate_->copySharedConnectivityHelperForReportingSession(
      *this, ReportingSessionConnectivityHelper::POSTRequestMode()));
}

// Start

void ReportingdSession::startConfigWithCompletionHandler(StatesReply completionHandler) {
  log().debug("startConfigWithCompletionHandler: Starting configuration for session {}", sessionID());
  const std::optional<Dictionary> storebag = delegate_->storebagForSession(*this);
  if (!storebag) {
    if (completionHandler) completionHandler(std::nullopt);
    return;
  }
  storebagVersion_ = delegate_->storebagVersionForSession(*this);
  createBackendsWithStorebag(*storebag);
  updateSessionWithDefaultSessionInfo();
  sendStartMessage();
  if (completionHandler) completionHandler(fetchReportingStates());
}

void ReportingdSession::updateSessionWithDefaultSessionInfo() {
  posting_->beginStart();
  posting_->endStart(updateReportingStates());
  delegate_->updateDownstreamSessions(*this);
}

void ReportingdSession::sendStartMessage() {
  const PlatformServices& platform = services_.platform;
  const std::string unknown = "Unknown";
  const std::string country = platform.locale.regionCode().value_or(unknown);
  const Value timeZoneSetting = platform.defaults.objectForKey(kTimeZoneSuite, "TMAutomaticTimeZoneEnabled");
  const bool automaticTime = timeZoneSetting.isNone() || timeZoneSetting.boolValue();

  Dictionary payload;
  if (services_.identity.isInternalBuild()) {
    payload = {{"SerialNum", services_.identity.serialNumber().value_or(unknown)},
               {"Version", services_.identity.productVersion().value_or(unknown)},
               {"Build", services_.identity.buildVersion().value_or(unknown)},
               {"Hardware", services_.identity.hardwareModel().value_or(unknown)},
               {"Product", services_.identity.deviceName().value_or(unknown)},
               {"ReportVers", versionOrDefault(platform.bundle)},
               {"Locale", country},
               {"AutomaticTimeSet", automaticTime}};
  } else {
    // What identifies the device stays on it.
    payload = {{"AutomaticTimeSet", automaticTime}, {"Locale", country}};
  }
  internalSendMessage(payload, /*method=*/0, /*respCode=*/0);
}

// New user information

std::optional<ClientSessionInterface::Refusal> ReportingdSession::fetchStatesWithUserInfo(
    const std::optional<Dictionary>& userInfo, StatesReply completionHandler) {
  SessionDescription description = currentDescription();
  description.userInfo = userInfo;
  if (auto refusal = refusalOf(description, "fetchStatesWithUserInfo")) return refusal;
  log().debug("fetchStatesWithUserInfo: Fetching states for session {}", sessionID());
  receivedUserInfo(userInfo);
  if (completionHandler) completionHandler(fetchReportingStates());
  return std::nullopt;
}

void ReportingdSession::receivedUserInfo(const std::optional<Dictionary>& newUserInfo) {
  const std::optional<Dictionary> oldUserInfo = userInfo();
  bool userChanged = true;
  if (!newUserInfo) {
    if (!oldUserInfo || sessionInfo()[kZunReportingSessionInfoRequireUserInfo].boolValue()) return;
  } else if (oldUserInfo) {
    userChanged = differs(kZunReportingUserInfoClientName, *oldUserInfo, *newUserInfo) ||
                  differs(kZunReportingUserInfoServiceName, *oldUserInfo, *newUserInfo);
  }

  updateUserInfo(newUserInfo);
  updateUserInfoForBackends();
  if (!userChanged) {
    // States stay, but the helper may be another one, where the agent shares no more of them.
    if (backends_ != nullptr && backends_->isAnyEnabled()) posting_->activateOnce();
    return;
  }
  log().debug("receivedUserInfo: Received new user info for session {}", sessionID());
  updateSessionWithDefaultSessionInfo();
}

// Display URL and finish

void ReportingdSession::fetchDisplayURL(StringReply reply) {
  log().debug("fetchDisplayURL: Fetching display URL for session {}", sessionID());
  const auto displayURL = backends_ == nullptr ? std::nullopt : chooseDisplayURL(*backends_);
  if (reply) reply(displayURL.value_or("URL not available"));
}

void ReportingdSession::finishSessionGracefully() {
  hasFinishedGracefully_ = true;
  log().debug("finishSessionGracefully: Session {} has been finished gracefully", sessionID());
}

// Hierarchy

void ReportingdSession::updateCombinedSessionID() {
  const std::optional<std::string> parents = delegate_->parentSessionIDStringForSession(*this);
  if (!parents) return;
  const std::string combinedID = fmt::format("{}.{}", *parents, sessionIDString_);
  log().debug("updateCombinedSessionID: Updating combined session ID '{}' for session {} backends",
              combinedID, sessionID());
  const auto backends = backendsSnapshot();
  if (backends == nullptr) return;
  for (const auto& entry : backends->entries) entry.backend->setCorrelatedSessionID(combinedID);
}

// Teardown

/// Sessions whose teardown is due on one thread, linked through themselves.
class ReportingdSession::TeardownLine final {
 public:
  void add(ReportingdSession* session) {
    (last_ == nullptr ? first_ : last_->nextToTearDown_) = session;
    last_ = session;
    if (!isMoving_) run();
  }

 private:
  void run() {
    isMoving_ = true;
    while (ReportingdSession* const session = first_) {
      first_ = session->nextToTearDown_;
      if (first_ == nullptr) last_ = nullptr;
      session->dealloc();
      delete session;
    }
    isMoving_ = false;
  }

  ReportingdSession* first_ = nullptr;
  ReportingdSession* last_ = nullptr;
  bool isMoving_ = false;
};

// The last reference to a session may be another's snapshot for its health report, taken
// while that one is torn down. Where many sessions end at once this makes chains, which
// teardowns within teardowns would follow down the stack.
void ReportingdSession::tearDown(ReportingdSession* session) {
  thread_local TeardownLine line;
  line.add(session);
}

void ReportingdSession::dealloc() {
  log().debug("dealloc: ReportingdSession dealloc: {}", sessionID());
  if (hasBackends()) {
    internalSendMessage(endPayload(), /*method=*/0, /*respCode=*/1);
    flushMessagesWithCompletion(nullptr);
  }
  shutdownSessionAggregation();
  handBackKeepAliveReference();
  releaseUserInfo();
  if (backends_ != nullptr) {
    for (const auto& entry : backends_->entries) entry.backend->cleanup();
  }
  posting_->tellLosses();  // not when its last post has ended, which may take days
}

Dictionary ReportingdSession::endPayload() const {
  Dictionary payload;
  if (storebagVersion_) {
    payload.set("StorebagVersion", *storebagVersion_);
    payload.set("GracefulTermination", hasFinishedGracefully_);
  }
  const ReportingAgentState state = delegate_->copyReportingAgentState();
  addSessionsAccumulatedHealthInfoToPayload(payload, state.sessions, state.cachedStorebags);
  return payload;
}

void ReportingdSession::handBackKeepAliveReference() {
  if (const auto helper = connectivityHelper()) {
    log().debug("ReportingdSession dealloc: incrementing total sessions count for session {}", sessionID());
    helper->incrementTotalSessionsServedCount();
    return;
  }
  log().debug(
      "ReportingdSession dealloc: "
      "release Quorx transaction for session without connectivity helper for session {}",
      sessionID());
  const RecursiveMutexLock lock(delegate_->objectLock());
  delegate_->releaseQuorxTransactions(1);
}

}  // namespace zun
