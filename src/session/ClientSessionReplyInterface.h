#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/ServiceConnection.h"
#include "values/Value.h"

namespace zun {

/// The interface that clients export.
[[nodiscard]] const ServiceInterface& clientSessionReplyInterface();

/// `sendMessageToClient:timestamp:category:type:payload:` of the client at the other end.
/// One way, never waits. `timestamp` is in seconds since 1970. Any thread. None when the
/// call is on its way, else a text for logs that says why not.
[[nodiscard]] std::optional<std::string> sendMessageToClient(ServiceConnection& connection,
                                                             const std::optional<Dictionary>& sessionInfo,
                                                             double timestamp, uint16_t category,
                                                             uint16_t type,
                                                             const std::optional<Dictionary>& payload);

}  // namespace zun
