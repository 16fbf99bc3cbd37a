#include <utility>

#include "session/ReportingdSession.h"
#include "zunreporting/Keys.h"

namespace zun {

using namespace zunreporting;

namespace {

bool isActive(int32_t state) {
  return state == ZunBackendStateEnabled || state == ZunBackendStateSampledOut;
}

/// Text up to the first zero, or all of it.
std::string textOfBuffer(std::span<const char> buffer) {
  const std::string_view text(buffer.data(), buffer.size());
  return std::string(text.substr(0, text.find('\0')));
}

/// `parentBackends` may be null: the parent has not started.
void copyStateFromParent(const BackendTable::Entry& entry, const BackendTable* parentBackends,
                         SystemLog& log) {
  ZunReportingBackend& backend = *entry.backend;
  if (backend.state() == ZunBackendStateSampledOut) return;
  const ZunReportingBackend* const counterpart = parentBackends ? parentBackends->find(entry.name) : nullptr;
  if (counterpart == nullptr) {
    backend.setState(ZunBackendStateDisabled);
    return;
  }
  const int32_t state = counterpart->state();
  const Value threshold = counterpart->samplingThreshold();
  backend.setState(state);
  backend.setSamplingThreshold(threshold);
  log.debug("HTTPSPostBackend(syncReportingStates): {}: state and sampling rate updated to {}, {:.2f}%",
            entry.name, state, static_cast<float>(threshold.doubleValue()));
}

}  // namespace

void ReportingdSession::createBackendsWithStorebag(const Dictionary& storebag) {
  log().debug("createBackendsWithStorebag: Creating backends for session {}", sessionID());
  const Value& releaseTimeout = storebag["release_timeout"];
  posting_->setReleaseTimeout(releaseTimeout.isNone() ? SessionPosting::kDefaultReleaseTimeout
                                                      : static_cast<uint32_t>(releaseTimeout.intValue()));

  const std::optional<Dictionary> info = configuredSessionInfo();
  const BackendCreationOptions options{.storebag = &storebag,
                                       .sessionInfo = info ? &*info : nullptr,
                                       .userInfo = userInfo(),
                                       .deviceIdentifier = textOfBuffer(deviceid_),
                                       .observer = posting_};
  publishBackends(createBackends(services_, backendFactory_, options));
  if (backends_ == nullptr) return;
  for (const auto& entry : backends_->entries) {
    entry.backend->setReportingSessionConnectivityDelegate(connectivityHelper());
    entry.backend->setCombinedSessionIDString(sessionIDString_);
  }
}

// Who reads the table under the agent's lock is done with it before the lock is free again:
// so the last backends of the former one end here, and never under that lock.
void ReportingdSession::publishBackends(std::shared_ptr<const BackendTable> backends) {
  const auto previous = std::exchange(backends_, std::move(backends));  // outlives the locks
  const RecursiveMutexLock agentLock(delegate_->objectLock());
  const MutexLock lock(mutex_);
  shared_.backends = backends_;
}

void ReportingdSession::updateUserInfoForBackends() {
  if (backends_ == nullptr) return;
  const std::optional<Dictionary> info = userInfo();
  const auto helper = connectivityHelper();
  for (const auto& entry : backends_->entries) {
    entry.backend->setUserInfoDict(info);
    // Backends hold the helper weakly, and a new user comes with another one: without it
    // what waited for the user could never be posted.
    if (helper) entry.backend->setReportingSessionConnectivityDelegate(helper);
    if (entry.name != kZunReportingBackendQRS) continue;
    entry.backend->setDigestKey(digestKey_);
    entry.backend->setDigestAlgorithm(digestAlgorithm_);
  }
}

bool ReportingdSession::updateReportingStates() {
  bool anyActive = false;
  if (backends_ == nullptr) return anyActive;
  for (const auto& entry : backends_->entries) {
    if (entry.backend->updateState() == ZunBackendStateEnabled) anyActive = true;
  }
  return anyActive;
}

std::optional<std::vector<std::string>> ReportingdSession::fetchReportingStates() const {
  if (backends_ == nullptr) return std::nullopt;
  std::vector<std::string> names;
  for (const auto& entry : backends_->entries) {
    if (isActive(entry.backend->state())) names.push_back(entry.name);
  }
  return names;
}

void ReportingdSession::syncReportingStates() {
  // Let go of after the lock: they may be the last references by then.
  std::shared_ptr<const BackendTable> backends;
  std::shared_ptr<ReportingdSession> parent;
  std::shared_ptr<const BackendTable> parentBackends;
  const RecursiveMutexLock lock(delegate_->objectLock());
  parent = delegate_->parentSessionForChild(*this);
  backends = backendsSnapshot();
  if (backends == nullptr) return;
  if (parent) parentBackends = parent->backendsSnapshot();
  for (const auto& entry : backends->entries) {
    if (parent) {
      copyStateFromParent(entry, parentBackends.get(), log());
    } else if (const uint32_t level = hierarchyLevel(); level != 0) {
      log().note("syncReportingStates: child session {} (backend {}) with hierarchy {} is missing its parent",
                 sessionID(), entry.name, static_cast<int32_t>(level));
    }
  }
}

}  // namespace zun
