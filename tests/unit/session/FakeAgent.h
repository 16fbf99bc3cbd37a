#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/PlatformServices.h"
#include "session/ReportingdSession.h"
#include "session/ReportingdSessionDelegate.h"
#include "util/Conversions.h"

namespace zun {

/// The agent as sessions see it, with memory: one storebag for all, hierarchies, shared
/// values and real connectivity helpers. Shared values and the count of released
/// references rely on the caller's holding the object lock, as the agent's do: a caller
/// that does not is a data race.
class FakeAgent final : public ReportingdSessionDelegate, public std::enable_shared_from_this<FakeAgent> {
 public:
  explicit FakeAgent(const PlatformServices& platform)
      : platform_(platform), stateQueue_(SerialQueue::create("test.agent", platform.executor)) {}

  // What the test decides, before it starts threads.
  std::optional<Dictionary> storebag;
  std::optional<std::string> version = "41";
  bool mayJoin = true;        // hierarchies that are for one user
  bool sharesHelpers = true;  // false: a new one with every request
  std::function<void()> onHelperRelease = nullptr;
  std::function<void()> onParentFound = nullptr;
  std::function<void()> onDownstream = nullptr;
  std::function<void()> onObjectLock = nullptr;  // somebody is about to take the object lock
  std::function<ReportingAgentState()> onCopyState = nullptr;

  // What sessions did.
  std::vector<std::string> calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  int countOfCalls(const std::string& call) const {
    const auto all = calls();
    return static_cast<int>(std::count(all.begin(), all.end(), call));
  }
  void forgetCalls() {
    const std::lock_guard lock(mutex_);
    calls_.clear();
  }
  uint32_t releasedTransactions() {
    const RecursiveMutexLock lock(objectLock_);
    return releasedTransactions_;
  }
  std::shared_ptr<ReportingSessionConnectivityHelper> helper(const std::string& key) const {
    const std::lock_guard lock(mutex_);
    const auto found = helpers_.find(key);
    return found == helpers_.end() ? nullptr : found->second;
  }
  /// As when their release timers have run: only sessions hold them any more.
  void forgetHelpers() {
    const std::lock_guard lock(mutex_);
    for (const auto& [key, helper] : helpers_) helper->invalidate();
    helpers_.clear();
  }
  void invalidateHelpers() {
    const std::lock_guard lock(mutex_);
    for (const auto& [key, helper] : helpers_) helper->invalidate();
  }
  std::map<std::string, Dictionary> sharedData() {
    const RecursiveMutexLock lock(objectLock_);
    return sharedData_;
  }

  // ReportingdSessionDelegate
  RecursiveMutex& objectLock() override {
    if (onObjectLock) onObjectLock();
    return objectLock_;
  }
  void releaseQuorxTransactions(uint32_t count) override {
    record("releaseQuorxTransactions");
    releasedTransactions_ += count;
  }
  std::optional<Dictionary> storebagForSession(const ReportingdSession&) override {
    record("storebagForSession");
    return storebag;
  }
  std::optional<std::string> storebagVersionForSession(const ReportingdSession&) override { return version; }
  void updateCorrelatedSessions(ReportingdSession& session) override {
    record("updateCorrelatedSessions");
    const RecursiveMutexLock lock(objectLock_);
    std::erase_if(sessions_, [&session](const auto& weak) { return weak.lock().get() == &session; });
    sessions_.push_back(session.weak_from_this());
  }
  bool claimHierarchy(const std::string& token, uint32_t user) override {
    record("claimHierarchy " + token + " " + std::to_string(user));
    return mayJoin;
  }
  std::optional<std::string> parentSessionIDStringForSession(ReportingdSession& session) override {
    const RecursiveMutexLock lock(objectLock_);
    const auto parent = sessionAbove(session);
    return parent ? std::optional(parent->sessionIDString()) : std::nullopt;
  }
  std::shared_ptr<ReportingdSession> parentSessionForChild(ReportingdSession& session) override {
    auto parent = sessionAbove(session);
    if (parent && onParentFound) onParentFound();
    return parent;
  }
  std::shared_ptr<ReportingdSession> getAncestorWithAggregatorForSession(
      ReportingdSession& session) override {
    record("getAncestorWithAggregatorForSession");
    const RecursiveMutexLock lock(objectLock_);
    const auto parent = sessionAbove(session);
    return parent && parent->hasAggregator() ? parent : nullptr;
  }
  ReportingAgentState copyReportingAgentState() override {
    record("copyReportingAgentState");
    return onCopyState ? onCopyState() : ReportingAgentState{};
  }
  void updateDownstreamSessions(ReportingdSession& session) override {
    record("updateDownstreamSessions");
    if (onDownstream) onDownstream();
    std::vector<std::shared_ptr<ReportingdSession>> affected;  // let go of after the lock
    const RecursiveMutexLock lock(objectLock_);
    if (!session.hierarchyToken()) return;
    affected.push_back(session.shared_from_this());
    for (const auto& weak : sessions_) {
      auto other = weak.lock();
      if (other && other->hierarchyToken() == session.hierarchyToken() &&
          other->hierarchyLevel() > session.hierarchyLevel())
        affected.push_back(std::move(other));
    }
    for (const auto& each : affected) {
      each->updateCombinedSessionID();
      each->syncReportingStates();
    }
  }
  void updateSharedDataForSession(ReportingdSession& session, const Dictionary& values) override {
    if (const auto token = session.hierarchyToken()) sharedData_[*token].addEntries(values);
  }
  void removeObjectFromSharedDataForSession(ReportingdSession& session, const std::string& key) override {
    record("removeObjectFromSharedDataForSession " + key);
    if (const auto token = session.hierarchyToken()) sharedData_[*token].remove(key);
  }
  std::optional<Dictionary> sharedDataForSession(ReportingdSession& session) override {
    const auto token = session.hierarchyToken();
    if (!token || !sharedData_.contains(*token)) return std::nullopt;
    return sharedData_[*token];
  }
  std::shared_ptr<ReportingSessionConnectivityHelper> copySharedConnectivityHelperForReportingSession(
      const ReportingdSession& session, ConnectionMode mode) override {
    const std::string key = connectivityUserInfoKey(*session.userInfo());
    record("copySharedConnectivityHelper " + key + " mode " + std::to_string(mode));
    const std::lock_guard lock(mutex_);
    auto& helper = helpers_[key];
    if (!helper || !sharesHelpers)
      helper = ReportingSessionConnectivityHelper::create(platform_, weak_from_this(), mode);
    helper->ownerIncrementUsageCount();
    return helper;
  }
  void releaseSharedConnectivityHelperForReportingSession(const ReportingdSession& session) override {
    const std::string key = connectivityUserInfoKey(*session.userInfo());
    record("releaseSharedConnectivityHelper " + key);
    if (onHelperRelease) onHelperRelease();
    if (const auto known = helper(key)) known->ownerDecrementUsageCountWithBlock([](int32_t) {}, stateQueue_);
  }
  std::string description() const override { return "<FakeAgent>"; }

 private:
  void record(std::string call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  std::shared_ptr<ReportingdSession> sessionAbove(ReportingdSession& session) {
    if (session.hierarchyLevel() == 0) return nullptr;
    for (const auto& weak : sessions_) {
      auto other = weak.lock();
      if (other && other->hierarchyToken() == session.hierarchyToken() &&
          other->hierarchyLevel() + 1 == session.hierarchyLevel())
        return other;
    }
    return nullptr;
  }

  const PlatformServices& platform_;
  const std::shared_ptr<SerialQueue> stateQueue_;
  RecursiveMutex objectLock_;
  // Under objectLock_, which the caller holds where the agent's rules say so.
  std::vector<std::weak_ptr<ReportingdSession>> sessions_;
  std::map<std::string, Dictionary> sharedData_;
  uint32_t releasedTransactions_ = 0;

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::map<std::string, std::shared_ptr<ReportingSessionConnectivityHelper>> helpers_;
};

}  // namespace zun
