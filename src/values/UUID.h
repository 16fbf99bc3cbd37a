#pragma once

#include <string>

#include "platform/RandomSource.h"

namespace zun {

/// A fresh random UUID in canonical upper-case form (8-4-4-4-12 hexadecimal digits).
[[nodiscard]] std::string makeUUIDString(RandomSource& random);

}  // namespace zun
