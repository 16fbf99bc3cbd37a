#pragma once

#include <chrono>
#include <cstdint>

#include "values/Date.h"

namespace zun {

/// A time of day: whole seconds since 1970 and microseconds (0 to 999,999).
struct TimeValue {
  int64_t seconds = 0;
  int32_t microseconds = 0;

  friend bool operator==(const TimeValue&, const TimeValue&) = default;
};

/// Seconds since 1970, with the microseconds as their fraction.
[[nodiscard]] constexpr double secondsOf(const TimeValue& time) {
  return static_cast<double>(time.seconds) + static_cast<double>(time.microseconds) / 1'000'000.0;
}

/// The wall clock and the monotonic clock. Any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  [[nodiscard]] virtual TimeValue timeOfDay() const = 0;

  /// Never goes back; its zero means nothing.
  [[nodiscard]] virtual std::chrono::nanoseconds monotonic() const = 0;

  [[nodiscard]] Date now() const { return Date{secondsOf(timeOfDay())}; }
};

}  // namespace zun
