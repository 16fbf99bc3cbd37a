#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "linux/system/Heartbeat.h"
#include "platform/Mutex.h"
#include "platform/SerialQueue.h"

namespace zun {

/// A fixed number of threads that run jobs in the order in which they come. Jobs do
/// not wait for peers, networks or clients, and do not throw.
///
/// Threading: any thread; the destructor, on a thread that is not the pool's own, runs
/// everything that is queued, and what that queues in turn, and joins.
class WorkerPool final : public Executor {
 public:
  /// `name`: of its threads, as the system shows them; a literal.
  explicit WorkerPool(unsigned threads, const char* name = "zun-worker");
  ~WorkerPool() override;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void execute(UniqueFunction<void()> job) override;

  /// How busy the pool is at a moment.
  struct Activity {
    uint64_t jobsTaken = 0;     // since the start
    size_t jobsUnfinished = 0;  // that run or wait
    bool isIdle = false;        // there are none of these
  };
  [[nodiscard]] Activity activity();

  /// The pool's, which stands still when jobs wait and no thread takes one; then each thread's,
  /// which stands still in a job.
  [[nodiscard]] const std::vector<std::shared_ptr<const Heartbeat>>& heartbeats() const {
    return heartbeats_;
  }

 private:
  void end();
  void work(Heartbeat& own) noexcept;

  const char* const name_;
  const std::shared_ptr<Heartbeat> heartbeat_ = std::make_shared<Heartbeat>("the worker pool");
  std::vector<std::shared_ptr<const Heartbeat>> heartbeats_{heartbeat_};
  Mutex mutex_;
  std::condition_variable_any workCame_;
  std::deque<UniqueFunction<void()>> jobs_ GUARDED_BY(mutex_);
  size_t sleepers_ GUARDED_BY(mutex_) = 0;
  uint64_t jobsTaken_ GUARDED_BY(mutex_) = 0;
  bool isEnding_ GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;
};

}  // namespace zun
