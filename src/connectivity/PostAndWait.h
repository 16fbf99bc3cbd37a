#pragma once

#include <memory>
#include <optional>
#include <string>

#include "connectivity/ReportingSessionConnectivityInterface.h"
#include "platform/URLSession.h"
#include "values/Error.h"

namespace zun {

/// What became of a posted request.
struct PostOutcome {
  std::string receivedData = {};             // the answer's body, possibly empty
  std::optional<URLResponse> response = {};  // none: no answer came
  std::optional<Error> error = {};

  /// For the "(%s)" of log lines: the error's description, or "(null)".
  [[nodiscard]] std::string errorDescription() const;
};

/// Posts `request` through `helper` and waits, without a limit of its own, until the
/// post has ended. A helper that drops the request instead (it is inactive, invalidated
/// or gone) ends the wait at once: there is then no response, and the error is
/// kCancelled. While the wait lasts nothing here keeps the helper.
///
/// Blocks its caller. Only for threads that may wait for a peer, such as a client's own:
/// never for a thread of the worker pool, and never for work on any helper's queue,
/// which is where the answer comes from.
[[nodiscard]] PostOutcome postAndWait(std::shared_ptr<ReportingSessionConnectivityInterface> helper,
                                      URLRequest request);

}  // namespace zun
