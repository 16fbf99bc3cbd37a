#pragma once

#include <optional>
#include <string>

#include "platform/URLSession.h"
#include "platform/UniqueFunction.h"
#include "values/Error.h"

namespace zun {

/// Hears of a request's end, at most once, on the helper's queue: the bytes of the
/// body (possibly empty), the response or none, the error or none. A request that the
/// helper drops lets go of its completion without a call.
using ConnectivityCompletion = UniqueFunction<void(
    std::string receivedData, const std::optional<URLResponse>& response, const std::optional<Error>& error)>;

/// Sends requests without waiting for them. Any thread.
class ReportingSessionConnectivityInterface {
 public:
  virtual ~ReportingSessionConnectivityInterface() = default;

  virtual void postURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion completion) = 0;
  virtual void getURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion completion) = 0;
};

}  // namespace zun
