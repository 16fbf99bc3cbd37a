#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <utility>

namespace zun {

/// Whether a thread moves. At its wait it may stay however long; with work, which whoever
/// wakes it may say as well, it has to come back there.
///
/// Threading: any thread. Ownership: shared by the thread's owner and whoever watches.
class Heartbeat final {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Heartbeat(std::string name) : name_(std::move(name)) {}

  void works() { since_ = Clock::now().time_since_epoch(); }
  void rests() { since_ = Clock::duration::zero(); }

  [[nodiscard]] bool standsStill(Clock::time_point now, Clock::duration limit) const {
    const Clock::duration since = since_;
    return since != Clock::duration::zero() && now.time_since_epoch() - since >= limit;
  }
  [[nodiscard]] const std::string& name() const { return name_; }

 private:
  const std::string name_;
  std::atomic<Clock::duration> since_{Clock::duration::zero()};  // zero: rests
};

}  // namespace zun
