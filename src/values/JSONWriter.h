#pragma once

#include <string>

#include "values/Value.h"

namespace zun {

enum class JSONFormat { kCompact, kPretty };

/// JSON text (UTF-8) of strings, numbers, booleans, arrays and dictionaries, in their
/// order. What JSON has no form for (none, data, dates, numbers that are not finite)
/// becomes null. Any thread.
[[nodiscard]] std::string writeJSON(const Value& value, JSONFormat format);

}  // namespace zun
