#include "connectivity/PostAndWait.h"

#include <future>
#include <utility>

namespace zun {

std::string PostOutcome::errorDescription() const {
  return error ? error->description : "(null)";
}

PostOutcome postAndWait(std::shared_ptr<ReportingSessionConnectivityInterface> helper, URLRequest request) {
  std::promise<PostOutcome> promise;
  std::future<PostOutcome> outcome = promise.get_future();
  helper->postURLRequestWithCompletionHandler(
      std::move(request),
      [promise = std::move(promise)](std::string receivedData, const std::optional<URLResponse>& response,
                                     const std::optional<Error>& error) mutable {
        promise.set_value({std::move(receivedData), response, error});
      });
  helper.reset();
  try {
    return outcome.get();
  } catch (const std::future_error&) {  // the completion has gone without a call
    constexpr auto kCode = static_cast<int32_t>(URLSessionError::kCancelled);
    return {.error = Error{kURLErrorDomain, kCode, "the request was dropped"}};
  }
}

}  // namespace zun
