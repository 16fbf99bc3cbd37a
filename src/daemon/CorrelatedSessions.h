#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/SystemLog.h"

namespace zun {

class ReportingdSession;

/// Which sessions carry which hierarchy token, by level and in the order in which they
/// joined.
///
/// A session is in at most one list. Lists stay when their last session leaves, so that
/// a later session of the same token finds what was shared. Joining, leaving and finding
/// the first session of a level take logarithmic time.
///
/// Threading: under the agent's lock, but for `tokenCount`. Ownership: holds sessions
/// weakly. The registry, changed under the same lock, holds every session that is here.
class CorrelatedSessions final {
 public:
  using Sessions = std::vector<std::shared_ptr<ReportingdSession>>;

  explicit CorrelatedSessions(SystemLog& log);

  /// Enters the session under its token, out of any other's list. Gives the token whose
  /// last session thereby left it, if any.
  std::optional<std::string> updateCorrelatedSessions(ReportingdSession& session);

  /// A session that no longer has a token stays where it was, at the level it now has.
  void updateLevelOfStandaloneSession(ReportingdSession& session);

  /// Takes an ending session out of its token's list, which stays. Gives the token if
  /// that was its last session.
  std::optional<std::string> removeSession(const ReportingdSession& session);

  /// ID strings of the session's ancestors, from the top down to its parent, joined
  /// by "."; a missing level ends the chain below it. None without ancestors.
  [[nodiscard]] std::optional<std::string> parentSessionIDString(ReportingdSession& session) const;

  /// The first session one level up, or null.
  [[nodiscard]] std::shared_ptr<ReportingdSession> parentSessionForChild(ReportingdSession& session) const;

  /// Of the first sessions of the levels above, the topmost that has an aggregator, or
  /// null. The session itself need not be in the list (any more).
  [[nodiscard]] std::shared_ptr<ReportingdSession> getAncestorWithAggregator(
      ReportingdSession& session) const;

  /// All deeper sessions of the session's token, in the order in which they joined.
  [[nodiscard]] Sessions sessionsBelow(ReportingdSession& session) const;

  /// Nothing for a token that has sessions.
  void removeToken(const std::string& token);
  [[nodiscard]] bool hasToken(const std::string& token) const { return sessions_.contains(token); }
  /// Any thread.
  [[nodiscard]] size_t tokenCount() const { return tokenCount_; }

 private:
  /// By level and, within one, by the number with which they joined.
  using SessionList = std::map<std::pair<uint32_t, uint64_t>, std::weak_ptr<ReportingdSession>>;
  using ListsByToken = std::map<std::string, SessionList, std::less<>>;
  /// Where a session is.
  struct Place {
    ListsByToken::iterator list;
    SessionList::key_type key;
  };

  static std::shared_ptr<ReportingdSession> getFirstSessionWithHierarchy(uint32_t level,
                                                                         const SessionList& list);
  [[nodiscard]] bool contains(const SessionList& list, const ReportingdSession& session) const;
  /// The token's list, or null where it has none or an empty one.
  [[nodiscard]] const SessionList* listOf(const std::string& token) const;

  SystemLog& log_;
  ListsByToken sessions_;
  std::unordered_map<const ReportingdSession*, Place> places_;
  uint64_t joins_ = 0;
  std::atomic<size_t> tokenCount_{0};
};

}  // namespace zun
