#pragma once

#include <optional>
#include <string>

#include "platform/ServiceConnection.h"

namespace zun {

/// Encodes a call of the peer's object and makes it. None on success, else why not.
inline std::optional<std::string> callRemote(ServiceConnection& connection, size_t member,
                                             const Array& arguments) {
  const auto call = connection.encodeCall(member, arguments);
  return call ? connection.callRemote(**call) : std::optional(call.error());
}

}  // namespace zun
