#pragma once

#include <cstdint>

namespace zun {

/// What a connectivity helper does and how. A plain number at the interfaces: a value
/// that is none of these makes a helper that refuses every request.
using ConnectionMode = int32_t;

inline constexpr ConnectionMode kBackgroundUploadMode = 1;  // POST from a file, discretionary, on power
inline constexpr ConnectionMode kBackgroundGETMode = 2;     // GET, discretionary
inline constexpr ConnectionMode kPOSTMode = 4;
inline constexpr ConnectionMode kGETMode = 8;

}  // namespace zun
