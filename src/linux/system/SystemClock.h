#pragma once

#include "platform/Clock.h"

namespace zun {

/// The machine's clocks. The monotonic one counts time asleep as well, as the event
/// loop's timers do. Any thread.
class SystemClock final : public Clock {
 public:
  [[nodiscard]] TimeValue timeOfDay() const override;
  [[nodiscard]] std::chrono::nanoseconds monotonic() const override;
};

}  // namespace zun
