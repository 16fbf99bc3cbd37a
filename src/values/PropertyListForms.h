#pragma once

#include <string>
#include <string_view>

#include "values/PropertyList.h"

namespace zun {

/// The two forms of a property list, behind `parsePropertyList`. Any thread.
[[nodiscard]] Result<Value, std::string> parseXMLPropertyList(std::string_view bytes,
                                                              const PropertyListLimits& limits);
[[nodiscard]] Result<Value, std::string> parseBinaryPropertyList(std::string_view bytes,
                                                                 const PropertyListLimits& limits);

/// Seconds from 1970 to 2001, the zero of a binary property list's dates.
inline constexpr double kSecondsTo2001 = 978307200;

/// Writers go no deeper: a reader has long refused what is below.
inline constexpr int kDeepestWritten = 256;

}  // namespace zun
