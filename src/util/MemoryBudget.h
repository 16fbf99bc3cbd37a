#pragma once

#include <atomic>
#include <cstddef>

namespace zun {

/// How many bytes all holders of one kind may keep together. Any thread.
class MemoryBudget final {
 public:
  explicit MemoryBudget(size_t bytes) : left_(bytes) {}
  MemoryBudget(const MemoryBudget&) = delete;
  MemoryBudget& operator=(const MemoryBudget&) = delete;

  /// False, and nothing is taken, where less than `bytes` is left.
  [[nodiscard]] bool take(size_t bytes) {
    size_t left = left_.load(std::memory_order_relaxed);
    do {
      if (bytes > left) return false;
    } while (!left_.compare_exchange_weak(left, left - bytes, std::memory_order_relaxed));
    return true;
  }
  void giveBack(size_t bytes) { left_.fetch_add(bytes, std::memory_order_relaxed); }

  [[nodiscard]] size_t left() const { return left_.load(std::memory_order_relaxed); }

 private:
  std::atomic<size_t> left_;
};

}  // namespace zun
