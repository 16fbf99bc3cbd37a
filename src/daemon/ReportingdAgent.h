#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "daemon/CorrelatedSessions.h"
#include "daemon/SharedConnectivityHelpers.h"
#include "daemon/StorebagCache.h"
#include "platform/Mutex.h"
#include "platform/ServiceConnection.h"
#include "session/ReportingdSession.h"
#include "session/ReportingdSessionDelegate.h"
#include "util/ReportingServices.h"

namespace zun {

/// The registry of the daemon: accepts clients, keeps their sessions and what sessions
/// share, and keeps the process alive while one of them has work.
///
/// Threading: any thread. The object lock (a monitor) guards the session list, the
/// hierarchies, their shared data and the keep-alive count; storebags and shared
/// connectivity helpers have locks of their own and are never waited for under it.
/// Ownership: made by main, held by every session. Holds the sessions.
class ReportingdAgent final : public ReportingdSessionDelegate,
                              public ServiceListenerDelegate,
                              public std::enable_shared_from_this<ReportingdAgent> {
 public:
  /// What a client process must be entitled to.
  static constexpr std::string_view kEntitlement = kClientEntitlement;

  /// `services` and `fetcher` outlive the agent.
  static std::shared_ptr<ReportingdAgent> create(const ReportingServices& services, StorebagFetcher& fetcher);
  ~ReportingdAgent() override;

  // ServiceListenerDelegate
  bool isEntitled(const ServicePeer& peer) override;
  bool shouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& connection) override;

  /// A new session, which the session list holds and the process stays alive for.
  std::shared_ptr<ReportingdSession> createReportingSessionWithDelegate(
      const std::shared_ptr<ReportingdSessionDelegate>& delegate,
      const std::shared_ptr<ServiceConnection>& connection);
  /// Takes a session whose connection has ended out of the registry.
  void invalidateReportingSession(std::shared_ptr<ReportingdSession> session);

  [[nodiscard]] size_t sessionCount() const { return sessionCount_; }

  // ReportingdSessionDelegate
  RecursiveMutex& objectLock() override { return objectLock_; }
  void releaseQuorxTransactions(uint32_t count) override;
  std::optional<Dictionary> storebagForSession(const ReportingdSession& session) override;
  std::optional<std::string> storebagVersionForSession(const ReportingdSession& session) override;
  std::optional<std::string> parentSessionIDStringForSession(ReportingdSession& session) override;
  void updateCorrelatedSessions(ReportingdSession& session) override;
  bool claimHierarchy(const std::string& token, uint32_t user) override;
  std::shared_ptr<ReportingdSession> getAncestorWithAggregatorForSession(ReportingdSession& session) override;
  void updateDownstreamSessions(ReportingdSession& session) override;
  std::shared_ptr<ReportingdSession> parentSessionForChild(ReportingdSession& session) override;
  void updateSharedDataForSession(ReportingdSession& session, const Dictionary& sharedData) override;
  void removeObjectFromSharedDataForSession(ReportingdSession& session, const std::string& key) override;
  std::optional<Dictionary> sharedDataForSession(ReportingdSession& session) override;
  [[nodiscard]] ReportingAgentState copyReportingAgentState() override;
  std::shared_ptr<ReportingSessionConnectivityHelper> copySharedConnectivityHelperForReportingSession(
      const ReportingdSession& session, ConnectionMode mode) override;
  void releaseSharedConnectivityHelperForReportingSession(const ReportingdSession& session) override;
  [[nodiscard]] std::string description() const override;

 private:
  ReportingdAgent(const ReportingServices& services, StorebagFetcher& fetcher);

  const ReportingServices& services_;
  SystemLog& log_;
  StorebagCache storebagCache_;
  std::unique_ptr<SharedConnectivityHelpers> sharedConnectivityHelpers_;

  RecursiveMutex objectLock_;
  std::vector<std::shared_ptr<ReportingdSession>> sessionList_ GUARDED_BY(objectLock_);
  CorrelatedSessions correlatedSessions_;  // changed under objectLock_
  int32_t quorxTransactionReference_ GUARDED_BY(objectLock_) = 0;
  std::atomic<size_t> sessionCount_{0};
};

}  // namespace zun
