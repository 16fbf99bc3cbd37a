#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include "platform/Mutex.h"

namespace zun {

/// Who keeps something. By default the daemon itself.
struct BudgetHolder {
  uint32_t user = 0;
  /// Of that user's: a connection, or what else asks for itself. 0, of user 0, is the daemon.
  uint64_t member = 0;

  [[nodiscard]] bool isDaemon() const { return user == 0 && member == 0; }
};

/// How much (bytes, or places) all holders of one kind may keep together, and who of it.
///
/// Nobody takes everything while others may come. Each user has a part. A member is granted
/// what, kept twice, fits into the part beside what the user's other members keep; the part
/// grows for that, but never beyond half of what other users' parts leave. So
///  - a user keeps at most half of what others leave, and a member a quarter when it is alone;
///  - what comes later always finds something: another user in what belongs to no part,
///    another member of the same user in the part, whoever has come in the meantime;
///  - giving back shrinks the part to twice what the user still keeps, and to nothing with
///    the last of it. No other user is ever worse off by it.
/// The daemon itself is held to no share: it takes whatever belongs to no part.
///
/// Threading: any thread. A take looks up two map entries under a lock of its own: whoever
/// takes often and little has a `MemoryShare` that takes in steps.
class MemoryBudget final {
 public:
  explicit MemoryBudget(size_t bytes) : total_(bytes) {}
  MemoryBudget(const MemoryBudget&) = delete;
  MemoryBudget& operator=(const MemoryBudget&) = delete;

  /// False, and nothing is taken, beyond the holder's share.
  [[nodiscard]] bool take(size_t bytes, BudgetHolder holder = {});
  /// At most what the holder took.
  void giveBack(size_t bytes, BudgetHolder holder = {});

  /// What nobody keeps.
  [[nodiscard]] size_t left() const;

 private:
  struct User {
    size_t kept = 0;
    size_t part = 0;  // at least what is kept
    std::map<uint64_t, size_t> members;
  };
  bool takeOfPart(size_t bytes, BudgetHolder holder) REQUIRES(mutex_);

  const size_t total_;
  mutable Mutex mutex_;
  size_t kept_ GUARDED_BY(mutex_) = 0;
  size_t parts_ GUARDED_BY(mutex_) = 0;  // all users' parts, and what the daemon keeps
  std::map<uint32_t, User> users_ GUARDED_BY(mutex_);
};

/// What one holder keeps of a budget, given back with the object. One thread at a time.
class MemoryShare final {
 public:
  /// For those who take often and little: so much is taken ahead, where the share has it, but
  /// never more than is kept already.
  static constexpr size_t kUsualStep = size_t{64} << 10;

  explicit MemoryShare(std::shared_ptr<MemoryBudget> budget, BudgetHolder holder = {}, size_t step = 0)
      : budget_(std::move(budget)), holder_(holder), step_(step) {}
  ~MemoryShare() { budget_->giveBack(taken_, holder_); }
  MemoryShare(const MemoryShare&) = delete;
  MemoryShare& operator=(const MemoryShare&) = delete;

  /// False, and nothing is taken, beyond the holder's share.
  [[nodiscard]] bool grow(size_t bytes) {
    if (bytes > taken_ - bytes_ && !takeMore(bytes - (taken_ - bytes_))) return false;
    bytes_ += bytes;
    return true;
  }
  /// Gives some of it back.
  void shrink(size_t bytes) {
    bytes_ -= bytes;
    const size_t wanted = bytes_ + std::min(step_, bytes_);
    if (taken_ <= wanted) return;
    budget_->giveBack(taken_ - wanted, holder_);
    taken_ = wanted;
  }
  [[nodiscard]] size_t bytes() const { return bytes_; }
  [[nodiscard]] BudgetHolder holder() const { return holder_; }

 private:
  bool takeMore(size_t missing) {
    const size_t ahead = std::min(step_, bytes_);
    if (ahead > 0 && budget_->take(missing + ahead, holder_)) {
      taken_ += missing + ahead;
      return true;
    }
    if (!budget_->take(missing, holder_)) return false;
    taken_ += missing;
    return true;
  }

  const std::shared_ptr<MemoryBudget> budget_;
  const BudgetHolder holder_;
  const size_t step_;
  size_t bytes_ = 0;
  size_t taken_ = 0;  // at least as much
};

}  // namespace zun
