#pragma once

#include <string>
#include <string_view>

#include "values/Result.h"
#include "zunreporting/ReportingSession.h"

namespace zun {

/// The event that a line of JSON describes:
/// {"category": 0..65535, "type": 0..65535, "payload": {...}, "flag": number}; payload
/// and flag may be missing. The error is a text for the user.
[[nodiscard]] Result<zunreporting::Event, std::string> eventFromLine(std::string_view line);

}  // namespace zun
