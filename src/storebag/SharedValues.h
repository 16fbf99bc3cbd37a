#pragma once

#include "platform/SystemLog.h"
#include "values/Value.h"

namespace zun {

/// The inner storebag with every macro of its sections expanded from "shared_values",
/// which is removed then. A storebag without shared values stays as it is.
[[nodiscard]] Dictionary expandSharedValues(const Dictionary& storebag, SystemLog& log);

}  // namespace zun
