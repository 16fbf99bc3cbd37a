#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>

namespace zun {

/// Has memory go back to the system that clients no longer need: soon after one has come or
/// gone, and now and then for as long as there is any. Without clients nothing wakes up.
///
/// Threading: one thread, the loop's. Ownership: main's.
class MemoryReturn final {
 public:
  static constexpr std::chrono::seconds kAfterChange{10};
  static constexpr std::chrono::seconds kBetweenLooks{60};

  using RunAfter = std::function<void(std::chrono::nanoseconds wait, std::function<void()> action)>;

  /// `runAfter` runs its actions on the same thread; this outlives them.
  MemoryReturn(RunAfter runAfter, std::function<void()> returnMemory)
      : runAfter_(std::move(runAfter)), returnMemory_(std::move(returnMemory)) {}

  void connectionsChanged(size_t count);

 private:
  void look();
  void lookIn(std::chrono::seconds wait);

  const RunAfter runAfter_;
  const std::function<void()> returnMemory_;
  size_t connections_ = 0;
  bool hasChanged_ = false;
  size_t waiting_ = 0;  // looks that are to come
};

}  // namespace zun
