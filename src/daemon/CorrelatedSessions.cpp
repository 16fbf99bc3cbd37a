#include "daemon/CorrelatedSessions.h"

#include <algorithm>

#include "session/ReportingdSession.h"

namespace zun {

namespace {

/// The ID strings of ancestors, of which the parent comes first.
std::string joinedFromTheTop(const CorrelatedSessions::Sessions& ancestors) {
  std::string joined;
  for (auto ancestor = ancestors.rbegin(); ancestor != ancestors.rend(); ++ancestor) {
    if (!joined.empty()) joined += '.';
    joined += (*ancestor)->sessionIDString();
  }
  return joined;
}

}  // namespace

CorrelatedSessions::CorrelatedSessions(SystemLog& log) : log_(log) {}

std::optional<std::string> CorrelatedSessions::updateCorrelatedSessions(ReportingdSession& session) {
  const std::string token = *session.hierarchyToken();
  const uint32_t level = session.hierarchyLevel();
  auto abandoned = removeSession(session);
  const auto list = sessions_.try_emplace(token).first;
  tokenCount_ = sessions_.size();
  log_.debug(
      "updateCorrelatedSessions: Adding session {} to list for hierarchyToken {} with hierarchyLevel {}",
      session.sessionID(), token, static_cast<int32_t>(level));
  const SessionList::key_type key{level, ++joins_};
  list->second.emplace(key, session.weak_from_this());
  places_.insert_or_assign(&session, Place{list, key});
  return abandoned == token ? std::nullopt : abandoned;
}

void CorrelatedSessions::updateLevelOfStandaloneSession(ReportingdSession& session) {
  const auto known = places_.find(&session);
  if (known == places_.end()) return;
  Place& place = known->second;
  auto entry = place.list->second.extract(place.key);
  place.key.first = session.hierarchyLevel();
  entry.key() = place.key;
  place.list->second.insert(std::move(entry));
}

std::optional<std::string> CorrelatedSessions::removeSession(const ReportingdSession& session) {
  const auto known = places_.find(&session);
  if (known == places_.end()) return std::nullopt;
  const Place place = known->second;
  places_.erase(known);
  place.list->second.erase(place.key);
  return place.list->second.empty() ? std::optional(place.list->first) : std::nullopt;
}

void CorrelatedSessions::removeToken(const std::string& token) {
  const auto found = sessions_.find(token);
  if (found == sessions_.end() || !found->second.empty()) return;
  sessions_.erase(found);
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

  Sessions ancestors;  // from the parent up
  for (uint32_t level = session.hierarchyLevel(); level-- > 0;) {
    auto ancestor = getFirstSessionWithHierarchy(level, *list);
    if (ancestor == nullptr) {
      log_.note(
          "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete "
          "parentSessionID is '{}'",
          ancestors.empty() ? "(null)" : joinedFromTheTop(ancestors));
      break;
    }
    ancestors.push_back(std::move(ancestor));
  }
  return ancestors.empty() ? std::nullopt : std::optional(joinedFromTheTop(ancestors));
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
  const uint32_t parentLevel = session.hierarchyLevel() - 1;
  auto parent = getFirstSessionWithHierarchy(parentLevel, *list);
  if (parent == nullptr) {
    log_.note("parentSessionForChild: Unable to find session with hierarchy of {} for hierarchyToken '{}'",
              static_cast<int32_t>(parentLevel), *token);
  }
  return parent;
}

std::shared_ptr<ReportingdSession> CorrelatedSessions::getAncestorWithAggregator(
    ReportingdSession& session) const {
  const auto token = session.hierarchyToken();
  const uint32_t ownLevel = session.hierarchyLevel();
  if (!token || ownLevel < 1) return nullptr;
  const SessionList* const list = listOf(*token);
  if (list == nullptr) return nullptr;
  // By the levels that there are: their numbers are the clients' to choose.
  for (auto entry = list->begin(); entry != list->end() && entry->first.first < ownLevel;) {
    auto first = entry->second.lock();
    if (first != nullptr && first->hasAggregator()) return first;
    entry = first == nullptr ? std::next(entry) : list->lower_bound({entry->first.first + 1, 0});
  }
  return nullptr;
}

CorrelatedSessions::Sessions CorrelatedSessions::sessionsBelow(ReportingdSession& session) const {
  const auto token = session.hierarchyToken();
  const SessionList* const list = token ? listOf(*token) : nullptr;
  if (list == nullptr) return {};
  std::vector<std::pair<uint64_t, std::shared_ptr<ReportingdSession>>> found;
  for (auto entry = list->upper_bound({session.hierarchyLevel(), UINT64_MAX}); entry != list->end();
       ++entry) {
    if (auto other = entry->second.lock()) found.emplace_back(entry->first.second, std::move(other));
  }
  std::sort(found.begin(), found.end());
  Sessions below;
  below.reserve(found.size());
  for (auto& [joined, other] : found) below.push_back(std::move(other));
  return below;
}

std::shared_ptr<ReportingdSession> CorrelatedSessions::getFirstSessionWithHierarchy(uint32_t level,
                                                                                    const SessionList& list) {
  for (auto entry = list.lower_bound({level, 0}); entry != list.end() && entry->first.first == level;
       ++entry) {
    if (auto session = entry->second.lock()) return session;
  }
  return nullptr;
}

bool CorrelatedSessions::contains(const SessionList& list, const ReportingdSession& session) const {
  const auto known = places_.find(&session);
  return known != places_.end() && &known->second.list->second == &list;
}

const CorrelatedSessions::SessionList* CorrelatedSessions::listOf(const std::string& token) const {
  const auto found = sessions_.find(token);
  return found == sessions_.end() || found->second.empty() ? nullptr : &found->second;
}

}  // namespace zun
