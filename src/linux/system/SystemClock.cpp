#include "linux/system/SystemClock.h"

#include <ctime>

namespace zun {

TimeValue SystemClock::timeOfDay() const {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return {now.tv_sec, static_cast<int32_t>(now.tv_nsec / 1000)};
}

std::chrono::nanoseconds SystemClock::monotonic() const {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace zun
