#pragma once

#include "values/Value.h"

namespace zun {

/// The time of day, as records of what was received carry it.
[[nodiscard]] double secondsSince1970();

/// `value` as JSON can hold it: data as {"base64": ...}, a date as {"date": seconds since
/// 1970}, and U+FFFD for bytes of a string that are no UTF-8.
[[nodiscard]] Value jsonForm(const Value& value);

}  // namespace zun
