#pragma once

#include <string>
#include <string_view>

#include "values/Result.h"
#include "values/Value.h"

namespace zun {

/// Parses JSON text; the error is a text with the offset. Depth 64; null becomes none
/// and is left out of dictionaries. For tools and tests: the daemon reads no JSON.
[[nodiscard]] Result<Value, std::string> parseJSON(std::string_view text);

}  // namespace zun
