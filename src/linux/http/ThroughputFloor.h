#pragma once

#include <chrono>
#include <cstdint>

namespace zun {

/// Whether a transfer keeps the least pace that it must have in every minute after its
/// first. A pure function of the times and byte counts that it is told; one thread.
class ThroughputFloor final {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  void begin(TimePoint now) {
    minuteEnd_ = now + kMinute;
    isFirstMinute_ = true;
  }
  /// `bytes` moved since the beginning.
  [[nodiscard]] bool isMissed(TimePoint now, int64_t bytes) {
    if (now < minuteEnd_) return false;
    const bool isMissed = !isFirstMinute_ && bytes - bytesBefore_ < kBytesOfMinute;
    minuteEnd_ = now + kMinute;
    isFirstMinute_ = false;
    bytesBefore_ = bytes;
    return isMissed;
  }
  /// When to ask again.
  [[nodiscard]] TimePoint deadline() const { return minuteEnd_; }

 private:
  static constexpr std::chrono::minutes kMinute{1};
  static constexpr int64_t kBytesOfMinute = 60 << 10;  // 1 KiB a second

  TimePoint minuteEnd_ = TimePoint::max();
  bool isFirstMinute_ = true;
  int64_t bytesBefore_ = 0;
};

}  // namespace zun
