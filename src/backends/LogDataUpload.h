#pragma once

#include <memory>
#include <optional>
#include <string>

#include "connectivity/ReportingSessionConnectivityInterface.h"
#include "platform/MemoryBudget.h"
#include "platform/SystemLog.h"
#include "values/Value.h"

namespace zun {

/// Posts `logData`, as one keyed archive, to `postURL` and gives the location that the
/// server tells in its answer. None, after an error line, without a URL, where the array
/// has no archive (too deep or too large), where `memory` (of which it takes what its values
/// and its archive take) has no more for it, without a helper, when the post fails, and when
/// the answer is empty or no UTF-8. The answer's status does not matter.
///
/// Blocks until the post has ended; see `postAndWait` for whom that is allowed to.
[[nodiscard]] std::optional<std::string> uploadLogDataArray(
    const std::optional<std::string>& postURL, const Array& logData,
    std::shared_ptr<ReportingSessionConnectivityInterface> helper, std::unique_ptr<MemoryShare> memory,
    SystemLog& log);

}  // namespace zun
