#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/SystemLog.h"

namespace zun {

class ReportingdSession;

/// Which sessions carry which hierarchy token, in the order in which they joined.
///
/// A session is in at most one list. Lists stay when their last session leaves, so that
/// a later session of the same token finds what was shared.
///
/// Threading: under the agent's lock, but for `tokenCount`. Ownership: holds sessions
/// weakly; what it gives out is alive as long as the agent's lock is held.
class CorrelatedSessions final {
 public:
  explicit CorrelatedSessions(SystemLog& log);

  /// Enters the session under its token, out of any other's list. Gives the token whose
  /// last session thereby left it, if any.
  std::optional<std::string> updateCorrelatedSessions(ReportingdSession& session);

  /// Takes an ending session out of its token's list, which stays. Gives the token if
  /// that was its last session.
  std::optional<std::string> removeSession(const ReportingdSession& session);

  /// ID strings of the session's ancestors, from the top down to its parent, joined
  /// by "."; a missing level ends the chain below it. None without ancestors.
  [[nodiscard]] std::optional<std::string> parentSessionIDString(ReportingdSession& session) const;

  /// The first session one level up, or none.
  [[nodiscard]] std::shared_ptr<ReportingdSession> parentSessionForChild(ReportingdSession& session) const;

  /// Brings the session and all deeper ones of its token up to date.
  void updateDownstreamSessions(ReportingdSession& session);

  void removeToken(const std::string& token);
  [[nodiscard]] bool hasToken(const std::string& token) const { return sessions_.contains(token); }
  /// Any thread.
  [[nodiscard]] size_t tokenCount() const { return tokenCount_; }

 private:
  using SessionList = std::vector<std::weak_ptr<ReportingdSession>>;

  static std::shared_ptr<ReportingdSession> getFirstSessionWithHierarchy(int64_t level,
                                                                         const SessionList& list);
  static bool contains(const SessionList& list, const ReportingdSession& session);
  /// The token's list, or null where it has none or an empty one.
  [[nodiscard]] const SessionList* listOf(const std::string& token) const;

  SystemLog& log_;
  std::map<std::string, SessionList, std::less<>> sessions_;
  std::map<const ReportingdSession*, std::string> tokenOfSession_;
  std::atomic<size_t> tokenCount_{0};
};

}  // namespace zun
