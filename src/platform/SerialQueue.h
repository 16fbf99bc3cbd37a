#pragma once

#include <memory>
#include <string>
#include <type_traits>

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
///   runOrQueue: as async; on an idle queue as sync
///   sync:  runs on the caller's thread when its turn comes. On an idle queue that is
///          at once, without a thread switch. Behind queued jobs the caller runs those
///          first itself, so that a busy executor can never hold it up. On the queue
///          itself it runs inline, and so it does wherever the calling thread already
///          holds the queue further up.
///
/// Threading: any thread. Ownership: shared; a queued job keeps the queue alive.
class SerialQueue final : public std::enable_shared_from_this<SerialQueue> {
 public:
  /// `executor` outlives the queue.
  static std::shared_ptr<SerialQueue> create(std::string label, Executor& executor);

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  ~SerialQueue();

  /// What the job owns is let go of on the queue as well. A job that throws ends the
  /// process.
  void async(UniqueFunction<void()> job);

  /// As async, but at once and on the caller's thread where the queue is idle: for short jobs
  /// of callers who hold nothing that the job could wait for. Never within a turn.
  void runOrQueue(UniqueFunction<void()> job);

  /// Gives what `function` gives; what it throws ends the turn and reaches the caller.
  template <typename Function>
  auto sync(Function&& function) -> std::invoke_result_t<Function&> {
    const Turn turn(*this);
    return function();
  }

  /// True on the thread that runs this queue's current job.
  [[nodiscard]] bool isCurrent() const;

  [[nodiscard]] const std::string& label() const { return label_; }

 private:
  struct State;

  /// The caller's turn on the queue, from the moment it comes up to the end of scope.
  /// Knows the state only: the queue itself may end during its own turn.
  class Turn final {
   public:
    explicit Turn(SerialQueue& queue) : state_(queue.beginTurn()) {}
    ~Turn() {
      if (state_ != nullptr) endTurn(*state_);
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    State* const state_;
  };

  SerialQueue(std::string label, Executor& executor);

  /// Waits for the caller's turn; null for a turn within a turn, which needs no end.
  State* beginTurn();
  static void endTurn(State& state);

  const std::string label_;
  State* const state_;
};

}  // namespace zun
