#pragma once

#include <compare>

namespace zun {

/// A point in time, in seconds since 1970 UTC.
struct Date {
  double secondsSince1970 = 0;

  friend auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace zun
