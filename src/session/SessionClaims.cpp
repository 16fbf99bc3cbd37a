#include <fmt/format.h>

#include <algorithm>

#include "session/ReportingdSession.h"
#include "storebag/ClientTypes.h"
#include "zunreporting/Keys.h"

namespace zun {

using namespace zunreporting;

namespace {

using Reason = std::optional<std::string>;

template <typename Element, typename Claimed>
bool isAmong(const std::optional<std::vector<Element>>& allowed, const Claimed& claimed) {
  return !allowed || std::find(allowed->begin(), allowed->end(), claimed) != allowed->end();
}

Reason refusalOfType(const ClientClaims& claims, const Dictionary& sessionInfo) {
  const int64_t type = clientTypeOfSessionInfo(sessionInfo);
  if (isAmong(claims.clientTypes, type)) return std::nullopt;
  return fmt::format("the client may not have client type {}", type);
}

Reason refusalOfName(const ClientClaims& claims, const Dictionary& userInfo) {
  const auto name = userInfo[kZunReportingUserInfoClientName].string();
  if (!claims.clientNames || (name && isAmong(claims.clientNames, *name))) return std::nullopt;
  return fmt::format("the client may not be named '{}'", name.value_or(""));
}

std::optional<std::string_view> hierarchyTokenOf(const Dictionary& sessionInfo) {
  const Dictionary* const hierarchy = sessionInfo[kZunReportingSessionInfoHierarchyToken].dictionary();
  return hierarchy == nullptr ? std::nullopt : (*hierarchy)[kZunReportingHierarchyTokenTokenID].string();
}

}  // namespace

std::optional<std::string> ReportingdSession::refusalOfClaims(const std::optional<Dictionary>& newSessionInfo,
                                                              const std::optional<Dictionary>& newUserInfo) {
  const ClientClaims claims = connection_->claims(kClientEntitlement);
  Reason refusal = refusalOfType(claims, newSessionInfo ? *newSessionInfo : sessionInfo());
  if (!refusal && newUserInfo) refusal = refusalOfName(claims, *newUserInfo);
  if (!refusal && newSessionInfo && claims.onlyOwnHierarchies) {
    const auto token = hierarchyTokenOf(*newSessionInfo);
    if (token && !delegate_->claimHierarchy(std::string(*token), user())) {
      refusal = "the client may not join a hierarchy of other users";
    }
  }
  if (refusal && !std::exchange(hasToldOfRefusedClaim_, true)) {
    log().error("claims: {}: {}", connection_->description(), *refusal);
  }
  return refusal;
}

}  // namespace zun
