#include "daemon/CorrelatedSessions.h"

#include <algorithm>

#include "session/ReportingdSession.h"

namespace zun {

namespace {

/// What a record itself costs, roughly.
constexpr size_t kBytesPerToken = 256;

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

void CorrelatedSessions::updateCorrelatedSessions(ReportingdSession& session) {
  const auto token = tokens_.try_emplace(*session.hierarchyToken()).first;
  tokenCount_ = tokens_.size();
  const SessionList::key_type key{session.hierarchyLevel(), ++joins_};
  log_.debug(
      "updateCorrelatedSessions: Adding session {} to list for hierarchyToken {} with hierarchyLevel {}",
      session.sessionID(), token->first, static_cast<int32_t>(key.first));
  becomeBusy(token->second);
  note(token->second, session.user());
  token->second.sessions.emplace(key, session.weak_from_this());
  removeSession(session);  // from where it was: its new token has it already, and stays busy
  places_.insert_or_assign(&session, Place{token, key});
}

// A new one is without sessions for now.
bool CorrelatedSessions::claim(const std::string& token, uint32_t user) {
  const auto [claimed, isNew] = tokens_.try_emplace(token);
  Token& record = claimed->second;
  if (isNew) {
    note(record, user);
    becomeIdle(claimed, {user, 1});  // as one more program of that user
    return true;
  }
  return record.isOfOneUser && record.user == user;
}

void CorrelatedSessions::note(Token& token, uint32_t user) {
  if (!token.user) token.user = user;
  if (token.user != user) token.isOfOneUser = false;
}

void CorrelatedSessions::updateLevelOfStandaloneSession(ReportingdSession& session) {
  const auto known = places_.find(&session);
  if (known == places_.end()) return;
  Place& place = known->second;
  SessionList& list = place.token->second.sessions;
  auto entry = list.extract(place.key);
  place.key.first = session.hierarchyLevel();
  entry.key() = place.key;
  list.insert(std::move(entry));
}

void CorrelatedSessions::removeSession(const ReportingdSession& session) {
  const auto known = places_.find(&session);
  if (known == places_.end()) return;
  const Place place = known->second;
  places_.erase(known);
  place.token->second.sessions.erase(place.key);
  if (place.token->second.sessions.empty()) becomeIdle(place.token, session.programHolder());
}

void CorrelatedSessions::becomeIdle(Tokens::iterator token, BudgetHolder holder) {
  auto& [order, hasToldOfBound] = idleTokens_[{holder.user, holder.member}];
  token->second.idle = {holder, order.insert(order.end(), token->first), 0};
  const bool wasToldOfBound = std::exchange(hasToldOfBound, false);
  while (!takeIdleMemory(*token)) {
    if (!std::exchange(hasToldOfBound, true) && !wasToldOfBound) {
      log_.error(
          "updateCorrelatedSessions: "
          "hierarchyTokens without sessions keep more than a client's share of {} bytes, its longest idle "
          "are given up",
          kMaximumIdleBytes);
    }
    const auto longestIdle = tokens_.find(order.front());  // at last this one itself
    const bool isLast = longestIdle == token;
    becomeBusy(longestIdle->second);
    tokens_.erase(longestIdle);
    if (isLast) break;
  }
  tokenCount_ = tokens_.size();
}

bool CorrelatedSessions::takeIdleMemory(Tokens::value_type& token) {
  auto& [name, record] = token;
  const int64_t sharedBytes = record.sharedData ? record.sharedData->bytes() : 0;
  const size_t bytes = kBytesPerToken + 2 * name.size() + static_cast<size_t>(sharedBytes);
  if (!idleMemory_.take(bytes, record.idle->holder)) return false;
  record.idle->bytes = bytes;
  return true;
}

void CorrelatedSessions::becomeBusy(Token& token) {
  if (!token.idle) return;
  const auto [holder, place, bytes] = *token.idle;
  const auto ofProgram = idleTokens_.find({holder.user, holder.member});
  ofProgram->second.order.erase(place);
  if (ofProgram->second.order.empty()) idleTokens_.erase(ofProgram);
  idleMemory_.giveBack(bytes, holder);
  token.idle.reset();
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
          "parentSessionIDStringForSession: "
          "Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '{}'",
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
  return known != places_.end() && &known->second.token->second.sessions == &list;
}

const CorrelatedSessions::SessionList* CorrelatedSessions::listOf(const std::string& token) const {
  const auto found = tokens_.find(token);
  return found == tokens_.end() || found->second.sessions.empty() ? nullptr : &found->second.sessions;
}

CorrelatedSessions::Tokens::iterator CorrelatedSessions::tokenOf(const ReportingdSession& session) {
  const auto token = session.hierarchyToken();
  return token ? tokens_.find(*token) : tokens_.end();
}

void CorrelatedSessions::updateSharedData(const ReportingdSession& session, const Dictionary& sharedData) {
  const auto known = tokenOf(session);
  if (known == tokens_.end()) return;
  auto& [name, record] = *known;
  const bool isFirst = !record.sharedData;
  if (isFirst) record.sharedData.emplace();
  if (!record.sharedData->update(sharedData, name, log_) && isFirst) record.sharedData.reset();
}

void CorrelatedSessions::removeFromSharedData(const ReportingdSession& session, const std::string& key) {
  const auto known = tokenOf(session);
  if (known != tokens_.end() && known->second.sharedData) known->second.sharedData->remove(key);
}

std::optional<Dictionary> CorrelatedSessions::sharedData(const ReportingdSession& session) {
  const auto known = tokenOf(session);
  if (known == tokens_.end() || !known->second.sharedData) return std::nullopt;
  return known->second.sharedData->values();
}

}  // namespace zun
