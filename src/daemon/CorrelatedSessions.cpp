#include "daemon/CorrelatedSessions.h"

#include <algorithm>

#include "session/ReportingdSession.h"

namespace zun {

CorrelatedSessions::CorrelatedSessions(SystemLog& log) : log_(log) {}

std::optional<std::string> CorrelatedSessions::updateCorrelatedSessions(ReportingdSession& session) {
  const std::string token = *session.hierarchyToken();
  auto abandoned = removeSession(session);
  SessionList& list = sessions_[token];
  tokenCount_ = sessions_.size();
  log_.debug(
      "updateCorrelatedSessions: Adding session {} to list for hierarchyToken {} with hierarchyLevel {}",
      session.sessionID(), token, session.hierarchyLevel());
  list.push_back(session.weak_from_this());
  tokenOfSession_[&session] = token;
  return abandoned == token ? std::nullopt : abandoned;
}

std::optional<std::string> CorrelatedSessions::removeSession(const ReportingdSession& session) {
  const auto known = tokenOfSession_.find(&session);
  if (known == tokenOfSession_.end()) return std::nullopt;
  std::string token = std::move(known->second);
  tokenOfSession_.erase(known);

  const auto found = sessions_.find(token);
  if (found == sessions_.end()) return std::nullopt;
  std::erase_if(found->second, [&session](const auto& weak) { return weak.lock().get() == &session; });
  return found->second.empty() ? std::optional(std::move(token)) : std::nullopt;
}

void CorrelatedSessions::removeToken(const std::string& token) {
  sessions_.erase(token);
  tokenCount_ = sessions_.size();
}

std::optional<std::string> CorrelatedSessions::parentSessionIDString(ReportingdSession& session) const {
  const auto token = session.hierarchyToken();
  if (session.hierarchyLevel() == 0 || !token) return std::nullopt;
  log_.debug("parentSessionIDStringForSession: Checking hierarchyToken '{}' for session {}", *token,
             session.sessionID());
  const SessionList* const list = listOf(*token);
  if (list == nullptr) {
    log_.error("parentSessionIDStringForSession: ERROR: No sessions found for hierarchyToken {}", *token);
    return std::nullopt;
  }
  if (!contains(*list, session)) {
    log_.note("parentSessionIDStringForSession: Session {} not found for hierarchyToken {}",
              session.sessionID(), *token);
    return std::nullopt;
  }

  std::optional<std::string> combined;
  for (int64_t level = int64_t{session.hierarchyLevel()} - 1; level >= 0; --level) {
    const auto ancestor = getFirstSessionWithHierarchy(level, *list);
    if (ancestor == nullptr) {
      log_.note(
          "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete "
          "parentSessionID is '{}'",
          combined.value_or("(null)"));
      break;
    }
    combined = combined ? ancestor->sessionIDString() + "." + *combined : ancestor->sessionIDString();
  }
  return combined;
}

std::shared_ptr<ReportingdSession> CorrelatedSessions::parentSessionForChild(
    ReportingdSession& session) const {
  const auto token = session.hierarchyToken();
  if (session.hierarchyLevel() == 0 || !token) return nullptr;
  log_.debug("parentSessionForChild: Checking hierarchyToken '{}' for session {}", *token,
             session.sessionID());
  const SessionList* const list = listOf(*token);
  if (list == nullptr) {
    log_.error("parentSessionForChild: ERROR: No sessions found for hierarchyToken {}", *token);
    return nullptr;
  }
  if (!contains(*list, session)) {
    log_.error("parentSessionForChild: ERROR: Session {} not found for hierarchyToken {}",
               session.sessionID(), *token);
    return nullptr;
  }
  const int64_t parentLevel = int64_t{session.hierarchyLevel()} - 1;
  auto parent = getFirstSessionWithHierarchy(parentLevel, *list);
  if (parent == nullptr) {
    log_.note("parentSessionForChild: Unable to find session with hierarchy of {} for hierarchyToken '{}'",
              parentLevel, *token);
  }
  return parent;
}

void CorrelatedSessions::updateDownstreamSessions(ReportingdSession& session) {
  const auto token = session.hierarchyToken();
  if (!token) return;
  session.updateCombinedSessionID();
  session.syncReportingStates();

  const SessionList* const list = listOf(*token);
  if (list == nullptr) return;
  const SessionList downstream = *list;
  for (const auto& weak : downstream) {
    const auto other = weak.lock();
    if (other == nullptr || other->hierarchyLevel() <= session.hierarchyLevel()) continue;
    log_.debug(
        "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session {}",
        other->sessionID());
    other->updateCombinedSessionID();
    other->syncReportingStates();
  }
}

std::shared_ptr<ReportingdSession> CorrelatedSessions::getFirstSessionWithHierarchy(int64_t level,
                                                                                    const SessionList& list) {
  for (const auto& weak : list) {
    auto session = weak.lock();
    if (session != nullptr && session->hierarchyLevel() == level) return session;
  }
  return nullptr;
}

bool CorrelatedSessions::contains(const SessionList& list, const ReportingdSession& session) {
  return std::any_of(list.begin(), list.end(),
                     [&session](const auto& weak) { return weak.lock().get() == &session; });
}

const CorrelatedSessions::SessionList* CorrelatedSessions::listOf(const std::string& token) const {
  const auto found = sessions_.find(token);
  return found == sessions_.end() || found->second.empty() ? nullptr : &found->second;
}

}  // namespace zun
