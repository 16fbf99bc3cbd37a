#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/ClientClaims.h"
#include "values/Result.h"

namespace zun {

/// A user or group: its number or its name.
using AccountName = std::variant<uint32_t, std::string>;

/// One rule of an entitlement file: whom it is for, and what it decides for them.
struct EntitlementRule {
  // All that are given must hold; a user or a group always is.
  std::optional<AccountName> user;
  std::optional<AccountName> group;
  std::optional<std::string> executable;

  std::map<std::string, bool, std::less<>> entitlements;
  ClientClaims claims;
};

/// The rules of a file with this content, all of them or, where anything about it is not
/// as it must be, what that is. A condition that is not understood must not turn into no
/// condition. Any thread.
[[nodiscard]] Result<std::vector<EntitlementRule>, std::string> parseEntitlementRules(std::string_view bytes);

}  // namespace zun
