#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

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

/// One holder's part of a budget, given back with the object. One thread at a time.
class MemoryShare final {
 public:
  explicit MemoryShare(std::shared_ptr<MemoryBudget> budget) : budget_(std::move(budget)) {}
  ~MemoryShare() { budget_->giveBack(bytes_); }
  MemoryShare(const MemoryShare&) = delete;
  MemoryShare& operator=(const MemoryShare&) = delete;

  /// False, and nothing is taken, where the budget has less than `bytes` left.
  [[nodiscard]] bool grow(size_t bytes) {
    if (!budget_->take(bytes)) return false;
    bytes_ += bytes;
    return true;
  }
  /// Gives some of it back.
  void shrink(size_t bytes) {
    budget_->giveBack(bytes);
    bytes_ -= bytes;
  }
  [[nodiscard]] size_t bytes() const { return bytes_; }

 private:
  const std::shared_ptr<MemoryBudget> budget_;
  size_t bytes_ = 0;
};

}  // namespace zun
