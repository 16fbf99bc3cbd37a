#pragma once

#include <compare>
#include <string>

namespace zun {

/// A point in time, in seconds since 1970 UTC.
struct Date {
  double secondsSince1970 = 0;

  friend auto operator<=>(const Date&, const Date&) = default;  // NOLINT(modernize-use-nullptr)
};

/// "2023-11-14 22:13:20 +0000", in UTC, cut to whole seconds.
[[nodiscard]] std::string dateDescription(Date date);

}  // namespace zun
