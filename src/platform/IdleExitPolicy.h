#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace zun {

/// Decides when a process that nobody needs any more may exit: once a transaction has
/// ended, after a time without a transaction and without a connection. A process that
/// has had no work yet stays.
///
/// Pure: `now` is a monotonic time that the caller hands in. One thread.
class IdleExitPolicy final {
 public:
  using Time = std::chrono::nanoseconds;

  /// `idleTime`: none keeps the process for ever.
  explicit IdleExitPolicy(std::optional<std::chrono::seconds> idleTime) : idleTime_(idleTime) {}

  void transactionChanged(bool isOpen, Time now) {
    if (isTransactionOpen_ && !isOpen) hasWorked_ = true;
    isTransactionOpen_ = isOpen;
    update(now);
  }

  void connectionsChanged(size_t open, Time now) {
    connections_ = open;
    update(now);
  }

  /// When the process exits unless something changes before; none if it stays.
  [[nodiscard]] std::optional<Time> exitTime() const {
    if (!idleTime_ || !idleSince_) return std::nullopt;
    return *idleSince_ + *idleTime_;
  }

  [[nodiscard]] bool shouldExit(Time now) const {
    const std::optional<Time> due = exitTime();
    return due && now >= *due;
  }

 private:
  void update(Time now) {
    if (!hasWorked_ || isTransactionOpen_ || connections_ > 0) {
      idleSince_.reset();
    } else if (!idleSince_) {
      idleSince_ = now;
    }
  }

  const std::optional<std::chrono::seconds> idleTime_;
  bool hasWorked_ = false;
  bool isTransactionOpen_ = false;
  size_t connections_ = 0;
  std::optional<Time> idleSince_;
};

}  // namespace zun
