#pragma once

#include <string_view>

namespace zun {

// What a session hands its backends as one message: a dictionary with the client's
// payload, where the message has one, and the values that the sessions of its hierarchy
// share, where there are any.
inline constexpr std::string_view kZunReportingMessageBlobClientData = "ClientData";
inline constexpr std::string_view kZunReportingMessageBlobSharedData = "SharedData";

}  // namespace zun
