#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <utility>

#include "platform/MemoryBudget.h"
#include "platform/Mutex.h"

namespace zun {

/// Lets so many work at a time. Where several wait, the next turn is the user's whose last
/// one began longest ago; of the user's members, likewise; within one, of who came first.
///
/// Threading: any thread. Ownership: outlives its turns.
class FairTurns final {
 public:
  /// One turn, until its end.
  class Turn final {
   public:
    Turn() = default;
    Turn(FairTurns* turns, BudgetHolder holder) : turns_(turns), holder_(holder) {}
    ~Turn() {
      if (turns_ != nullptr) turns_->end(holder_);
    }
    Turn(Turn&& other) noexcept : turns_(std::exchange(other.turns_, nullptr)), holder_(other.holder_) {}
    Turn& operator=(Turn&&) = delete;

    [[nodiscard]] explicit operator bool() const { return turns_ != nullptr; }

   private:
    FairTurns* turns_ = nullptr;
    BudgetHolder holder_;
  };

  explicit FairTurns(size_t atOnce) : free_(atOnce) {}

  /// Waits for a turn; none once `isWanted`, which is asked while it waits, says no.
  [[nodiscard]] Turn wait(BudgetHolder holder, const std::function<bool()>& isWanted);

  /// How many wait.
  [[nodiscard]] size_t waiting() const;

 private:
  using Member = std::pair<uint32_t, uint64_t>;
  struct Waiter {
    BudgetHolder holder;
    bool isCalled = false;
  };
  /// One that waits or works.
  struct Present {
    size_t count = 0;
    uint64_t lastBegin = 0;
  };
  static Member memberOf(BudgetHolder holder) { return {holder.user, holder.member}; }
  void leave(BudgetHolder holder) REQUIRES(mutex_);
  void end(BudgetHolder holder);
  void callNext() REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::condition_variable_any called_;
  size_t free_ GUARDED_BY(mutex_);
  uint64_t begins_ GUARDED_BY(mutex_) = 0;
  std::list<Waiter> waiters_ GUARDED_BY(mutex_);  // in the order in which they came
  std::map<uint32_t, Present> users_ GUARDED_BY(mutex_);
  std::map<Member, Present> members_ GUARDED_BY(mutex_);
};

}  // namespace zun
