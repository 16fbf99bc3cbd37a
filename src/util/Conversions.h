#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/DatagramSocket.h"
#include "values/Error.h"
#include "values/Value.h"

// What sessions and backends share of turning one thing into another: names into a key, a
// text into an error, a storebag's address into a socket's, times into what is reported.

namespace zun {

/// "<client name>:<service name>" in lower case, "" for a missing one: the key under
/// which sessions share a connectivity helper.
[[nodiscard]] std::string connectivityUserInfoKey(const Dictionary& userInfo);

/// An error for a client: domain kZunReportingErrorDomain.
[[nodiscard]] Error reportingError(std::string message, int32_t code = -1);

/// `value` if finite, else -1.0.
[[nodiscard]] double finiteOrMinusOne(double value);

/// `seconds` cut to whole minutes, toward zero.
[[nodiscard]] int64_t wholeMinutes(int64_t seconds);

/// A dashboard server's address, of which the first 16 characters count.
/// 255.255.255.255 for what is none: not checked here, since nothing connects to that.
[[nodiscard]] IPv4SocketAddress dashboardSocketAddress(std::string_view dottedAddress, uint16_t port);

}  // namespace zun
