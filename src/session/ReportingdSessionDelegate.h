#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connectivity/QuorxTransactionHolder.h"
#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "values/Value.h"

namespace zun {

class ReportingdSession;

/// The agent's registry at one moment. Whoever lets go of it may be the last to hold one
/// of its sessions, and then tears that down: never under the agent's lock.
struct ReportingAgentState {
  std::vector<std::shared_ptr<ReportingdSession>> sessions;  // in the order in which they came
  Dictionary cachedStorebags;                                // storebag name to cache entry
};

/// What a session asks of the agent. Any thread; `objectLock` is the agent's lock.
class ReportingdSessionDelegate : public QuorxTransactionHolder {
 public:
  /// The storebag section to build backends from, or none. May block on the network.
  virtual std::optional<Dictionary> storebagForSession(const ReportingdSession& session) = 0;
  /// Version of the cached storebag, or none; never fetches.
  virtual std::optional<std::string> storebagVersionForSession(const ReportingdSession& session) = 0;

  // Hierarchy: sessions of one token, by level.
  virtual std::optional<std::string> parentSessionIDStringForSession(ReportingdSession& session) = 0;
  virtual void updateCorrelatedSessions(ReportingdSession& session) = 0;
  /// Before a session joins that is for hierarchies of its own user alone: false where
  /// sessions of others carry the token, or did. The first to claim a token is its user.
  [[nodiscard]] virtual bool claimHierarchy(const std::string& token, uint32_t user) = 0;
  /// The topmost session above this one whose client aggregates, or null.
  virtual std::shared_ptr<ReportingdSession> getAncestorWithAggregatorForSession(
      ReportingdSession& session) = 0;
  virtual void updateDownstreamSessions(ReportingdSession& session) = 0;
  virtual std::shared_ptr<ReportingdSession> parentSessionForChild(ReportingdSession& session) = 0;

  // Values shared by the sessions of one token.
  virtual void updateSharedDataForSession(ReportingdSession& session, const Dictionary& sharedData) = 0;
  virtual void removeObjectFromSharedDataForSession(ReportingdSession& session, const std::string& key) = 0;
  virtual std::optional<Dictionary> sharedDataForSession(ReportingdSession& session) = 0;

  /// All live sessions and the storebags in memory. Takes the agent's lock for the copy alone.
  [[nodiscard]] virtual ReportingAgentState copyReportingAgentState() = 0;

  // Connectivity helpers shared per client and service name.
  virtual std::shared_ptr<ReportingSessionConnectivityHelper> copySharedConnectivityHelperForReportingSession(
      const ReportingdSession& session, ConnectionMode mode) = 0;
  /// Does not wait.
  virtual void releaseSharedConnectivityHelperForReportingSession(const ReportingdSession& session) = 0;

  /// One line for logs.
  [[nodiscard]] virtual std::string description() const = 0;
};

}  // namespace zun
