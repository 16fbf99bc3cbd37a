#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "daemon/SharedSessionData.h"
#include "platform/MemoryBudget.h"
#include "platform/SystemLog.h"

namespace zun {

class ReportingdSession;

/// The hierarchies: for each token the sessions that carry it, by level and in the order
/// in which they joined, and what they share.
///
///   no record ──first session joins──▶ busy ──last leaves──▶ idle ──one joins──▶ busy
///                                                              └──bound──▶ given up
///
/// A session is in at most one list. A record stays when its last session leaves, so that
/// a later session of the same token finds what was shared. What all idle ones keep is
/// bounded, and each program, whose session was the last, has its share of that: beyond, the
/// one that has been idle longest of the same program is given up. Joining, leaving and
/// finding the first session of a level take logarithmic time.
///
/// Threading: under the agent's lock, but for `tokenCount`. Ownership: holds sessions
/// weakly. The registry, changed under the same lock, holds every session that is here.
class CorrelatedSessions final {
 public:
  using Sessions = std::vector<std::shared_ptr<ReportingdSession>>;

  /// What all tokens without sessions together may keep.
  static constexpr size_t kMaximumIdleBytes = size_t{32} << 20;

  explicit CorrelatedSessions(SystemLog& log);

  /// Enters the session under its token, out of any other's list.
  void updateCorrelatedSessions(ReportingdSession& session);

  /// True if nobody but this user has carried or claimed the token: then it is claimed.
  bool claim(const std::string& token, uint32_t user);

  /// A session that no longer has a token stays where it was, at the level it now has.
  void updateLevelOfStandaloneSession(ReportingdSession& session);

  /// Takes an ending session out of its token's list.
  void removeSession(const ReportingdSession& session);

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

  // Values shared under the session's token; without one there is nothing to share.
  void updateSharedData(const ReportingdSession& session, const Dictionary& sharedData);
  void removeFromSharedData(const ReportingdSession& session, const std::string& key);
  /// None before the first update.
  [[nodiscard]] std::optional<Dictionary> sharedData(const ReportingdSession& session);

  /// Any thread.
  [[nodiscard]] size_t tokenCount() const { return tokenCount_; }

 private:
  /// By level and, within one, by the number with which they joined.
  using SessionList = std::map<std::pair<uint32_t, uint64_t>, std::weak_ptr<ReportingdSession>>;
  /// What there is of one token.
  struct Token {
    struct Idle {
      BudgetHolder holder;
      std::list<std::string>::iterator place;
      size_t bytes = 0;
    };

    SessionList sessions;
    std::optional<uint32_t> user;                 // of the first session
    bool isOfOneUser = true;                      // and of all others
    std::optional<SharedSessionData> sharedData;  // none before the first update
    std::optional<Idle> idle;                     // none while it has sessions
  };
  using Tokens = std::map<std::string, Token, std::less<>>;
  /// Those of one program without sessions.
  struct IdleTokens {
    std::list<std::string> order;  // the longest idle first
    bool hasToldOfBound = false;   // until one becomes idle that there is room for
  };
  /// Where a session is.
  struct Place {
    Tokens::iterator token;
    SessionList::key_type key;
  };

  [[nodiscard]] Tokens::iterator tokenOf(const ReportingdSession& session);
  static void note(Token& token, uint32_t user);
  void becomeIdle(Tokens::iterator token, BudgetHolder holder);
  bool takeIdleMemory(Tokens::value_type& token);
  void becomeBusy(Token& token);
  static std::shared_ptr<ReportingdSession> getFirstSessionWithHierarchy(uint32_t level,
                                                                         const SessionList& list);
  [[nodiscard]] bool contains(const SessionList& list, const ReportingdSession& session) const;
  /// The token's list, or null where it has none or an empty one.
  [[nodiscard]] const SessionList* listOf(const std::string& token) const;

  SystemLog& log_;
  Tokens tokens_;
  std::unordered_map<const ReportingdSession*, Place> places_;
  std::map<std::pair<uint32_t, uint64_t>, IdleTokens> idleTokens_;  // by user and program
  MemoryBudget idleMemory_{kMaximumIdleBytes};
  uint64_t joins_ = 0;
  std::atomic<size_t> tokenCount_{0};
};

}  // namespace zun
