#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "platform/Mutex.h"
#include "platform/SystemLog.h"

namespace zun {

/// Tells which connections are refused, and why: of each cause one line a second at most,
/// which counts those that had none.
///
/// Threading: any thread. Ownership: the listener's; `log` outlives it.
class RefusalLog final {
 public:
  using Time = std::chrono::nanoseconds;  // its zero means nothing
  static constexpr Time kInterval = std::chrono::seconds(1);
  enum class Cause { kNotEntitled, kNoPlace, kShortage, kNotAuthenticated };

  explicit RefusalLog(SystemLog& log) : log_(log) {}
  ~RefusalLog() { tellCounted(Time::max()); }

  /// `connection`: whose, if that is known; `reason`: why it is refused.
  void refused(Cause cause, std::string connection, std::string reason, Time now);
  /// Whether the next of this cause has a line of its own, and is not counted.
  [[nodiscard]] bool tellsAtOnce(Cause cause, Time now);
  /// Tells of those that were counted, once they may be told. When to be asked again; none
  /// while there are none.
  std::optional<Time> tellCounted(Time now);

 private:
  static constexpr size_t kCauses = 4;
  struct Counted {
    std::optional<Time> told;  // when the last line was
    size_t untold = 0;
    std::string connection;  // the last of them
    std::string reason;
  };

  static bool tellsAtOnce(const Counted& counted, Time now) {
    return counted.untold == 0 && (!counted.told || now - *counted.told >= kInterval);
  }

  SystemLog& log_;
  Mutex mutex_;
  std::array<Counted, kCauses> causes_ GUARDED_BY(mutex_);
};

}  // namespace zun
