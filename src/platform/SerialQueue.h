#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "platform/UniqueFunction.h"

namespace zun {

/// Runs jobs on threads of its own, in no promised order. Any thread.
class Executor {
 public:
  virtual ~Executor() = default;

  /// Runs `job` soon, never inside this call.
  virtual void execute(UniqueFunction<void()> job) = 0;
};

/// Runs what is given to it one after the other, in the order in which it came.
///
///   async: queued, runs on a thread of the executor; the caller goes on
///   sync:  runs on the caller's thread when its turn comes. On an idle queue that is
///          at once, without a thread switch. Behind queued jobs the caller runs those
///          first itself, so that a busy executor can never hold it up. On the queue
///          itself it runs inline.
///
/// Threading: any thread. Ownership: shared; a queued job keeps the queue alive.
class SerialQueue final : public std::enable_shared_from_this<SerialQueue> {
 public:
  /// `executor` outlives the queue.
  static std::shared_ptr<SerialQueue> create(std::string label, Executor& executor);

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  ~SerialQueue();

  void async(UniqueFunction<void()> job);

  /// Gives what `function` gives.
  template <typename Function>
  auto sync(Function&& function) -> std::invoke_result_t<Function&> {
    const Turn turn(*this);
    return function();
  }

  /// True on the thread that runs this queue's current job.
  [[nodiscard]] bool isCurrent() const;

  [[nodiscard]] const std::string& label() const { return label_; }

 private:
  /// The caller's turn on the queue, from the moment it comes up to the end of scope.
  class Turn final {
   public:
    explicit Turn(SerialQueue& queue) : queue_(queue), outermost_(queue.beginTurn()) {}
    ~Turn() {
      if (outermost_) queue_.endTurn();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    SerialQueue& queue_;
    const bool outermost_;
  };

  SerialQueue(std::string label, Executor& executor);
  bool beginTurn();
  void endTurn();
  void drain();

  const std::string label_;
  Executor& executor_;
  // Shape of the implementation is free; see SerialQueue.cpp.
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zun
