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
  explicit IdleExitPolicy(std::optional<std::chrono::seconds> idleTime);

  void transactionChanged(bool isOpen, Time now);
  void connectionsChanged(size_t open, Time now);

  /// When the process exits unless something changes before; none if it stays.
  [[nodiscard]] std::optional<Time> exitTime() const;

  [[nodiscard]] bool shouldExit(Time now) const;

 private:
  void update(Time now);

  std::optional<std::chrono::seconds> idleTime_;
  bool hasWorked_ = false;
  bool isTransactionOpen_ = false;
  size_t connections_ = 0;
  std::optional<Time> idleSince_;
};

}  // namespace zun
