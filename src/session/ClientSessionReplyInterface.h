#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/ServiceConnection.h"
#include "values/Value.h"

namespace zun {

/// The interface that clients export.
[[nodiscard]] const ServiceInterface& clientSessionReplyInterface();

/// A client's `sendMessageToClient:timestamp:category:type:payload:`, ready to be made over
/// any client's connection, or a text for logs that says why not. `timestamp` is in seconds
/// since 1970. Any thread.
using MessageToClient = Result<std::shared_ptr<const EncodedCall>, std::string>;
[[nodiscard]] MessageToClient encodeMessageToClient(const ServiceConnection& connection,
                                                    const std::optional<Dictionary>& sessionInfo,
                                                    double timestamp, uint16_t category, uint16_t type,
                                                    const std::optional<Dictionary>& payload);

}  // namespace zun
