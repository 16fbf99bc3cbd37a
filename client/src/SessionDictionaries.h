#pragma once

#include <optional>

#include "zunreporting/ReportingSession.h"

namespace zunreporting {

/// The dictionaries that stand for these on the wire.
[[nodiscard]] PropertyDictionary dictionaryOf(const SessionInfo& info);
[[nodiscard]] std::optional<PropertyDictionary> dictionaryOf(const std::optional<UserInfo>& user);
[[nodiscard]] PropertyDictionary dictionaryOf(const Event& event);

}  // namespace zunreporting
