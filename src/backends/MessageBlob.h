#pragma once

#include <optional>
#include <string_view>

#include "values/Value.h"

namespace zun {

// What a session hands its backends as one message: a dictionary with the client's
// payload, where the message has one, and the values that the sessions of its hierarchy
// share, where there are any.
inline constexpr std::string_view kZunReportingMessageBlobClientData = "ClientData";
inline constexpr std::string_view kZunReportingMessageBlobSharedData = "SharedData";

/// The event's own payload: the client's data where the message has such, else the
/// message itself; empty for a message that is missing.
[[nodiscard]] Dictionary eventPayload(const std::optional<Dictionary>& message);

}  // namespace zun
