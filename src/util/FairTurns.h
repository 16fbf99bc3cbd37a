#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <utility>

#include "platform/Mutex.h"

namespace zun {

/// Lets so many work at a time. Where several wait, the next turn is the user's whose last
/// one began longest ago; within a user, of who came first.
///
/// Threading: any thread. Ownership: outlives its turns.
class FairTurns final {
 public:
  /// One turn, until its end.
  class Turn final {
   public:
    Turn() = default;
    Turn(FairTurns* turns, uint32_t user) : turns_(turns), user_(user) {}
    ~Turn() {
      if (turns_ != nullptr) turns_->end(user_);
    }
    Turn(Turn&& other) noexcept : turns_(std::exchange(other.turns_, nullptr)), user_(other.user_) {}
    Turn& operator=(Turn&&) = delete;

    [[nodiscard]] explicit operator bool() const { return turns_ != nullptr; }

   private:
    FairTurns* turns_ = nullptr;
    uint32_t user_ = 0;
  };

  explicit FairTurns(size_t atOnce) : free_(atOnce) {}

  /// Waits for a turn; none once `isWanted`, which is asked while it waits, says no.
  [[nodiscard]] Turn wait(uint32_t user, const std::function<bool()>& isWanted);

  /// How many wait.
  [[nodiscard]] size_t waiting() const;

 private:
  struct Waiter {
    uint32_t user = 0;
    bool isCalled = false;
  };
  /// One that waits or works.
  struct User {
    size_t present = 0;
    uint64_t lastBegin = 0;
  };
  void leave(uint32_t user) REQUIRES(mutex_);
  void end(uint32_t user);
  void callNext() REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::condition_variable_any called_;
  size_t free_ GUARDED_BY(mutex_);
  uint64_t begins_ GUARDED_BY(mutex_) = 0;
  std::list<Waiter> waiters_ GUARDED_BY(mutex_);  // in the order in which they came
  std::map<uint32_t, User> users_ GUARDED_BY(mutex_);
};

}  // namespace zun
