#include "values/Date.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace zun {

std::string dateDescription(Date date) {
  // Beyond these the calendar has no four-digit year.
  constexpr double kEarliest = -62135596800.0;  // year 1
  constexpr double kLatest = 253402300799.0;    // year 9999
  if (!(date.secondsSince1970 >= kEarliest && date.secondsSince1970 <= kLatest)) {
    return fmt::format("{} seconds since 1970", date.secondsSince1970);
  }
  const auto seconds = static_cast<time_t>(std::floor(date.secondsSince1970));
  tm calendar{};
  gmtime_r(&seconds, &calendar);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", calendar.tm_year + 1900,
                     calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min,
                     calendar.tm_sec);
}

}  // namespace zun
