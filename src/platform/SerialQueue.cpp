#include "platform/SerialQueue.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/Mutex.h"

namespace zun {

namespace {

/// Something of every thread's own that has an address: the thread's name for itself.
alignas(8) thread_local char threadMark = 0;

uintptr_t thisThread() {
  return reinterpret_cast<uintptr_t>(&threadMark);
}

/// A sync caller that waits for its turn.
struct Waiter {
  std::condition_variable_any granted;
  uintptr_t thread = thisThread();
  bool isGranted = false;
};

/// What waits in the queue: a job or a sync caller.
struct Entry {
  UniqueFunction<void()> job;
  Waiter* waiter = nullptr;
};

/// First in, first out, in one block that is reused.
class EntryList final {
 public:
  [[nodiscard]] bool empty() const { return first_ == entries_.size(); }
  [[nodiscard]] const Entry& front() const { return entries_[first_]; }

  void push(Entry entry) {
    if (first_ > kCompactFrom && first_ > entries_.size() / 2) {
      entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(first_));
      first_ = 0;
    }
    entries_.push_back(std::move(entry));
  }

  Entry pop() {
    Entry entry = std::move(entries_[first_]);
    if (++first_ == entries_.size()) {
      first_ = 0;
      entries_.clear();
      if (entries_.capacity() > kKeptCapacity) entries_.shrink_to_fit();
    }
    return entry;
  }

  [[nodiscard]] Waiter* firstWaiter() const {
    for (size_t i = first_; i < entries_.size(); ++i) {
      if (entries_[i].waiter != nullptr) return entries_[i].waiter;
    }
    return nullptr;
  }

 private:
  static constexpr size_t kCompactFrom = 64;
  static constexpr size_t kKeptCapacity = 1024;

  std::vector<Entry> entries_;
  size_t first_ = 0;
};

/// What a job owns goes with it, before the next entry's turn.
void runJob(UniqueFunction<void()> job) noexcept {
  job();
}

/// Jobs that one visit of an executor's thread runs before others get their chance.
constexpr int kJobsPerDrain = 64;

/// Low bit of the owner word: entries wait, so that the end of a turn has to look.
constexpr uintptr_t kPending = 1;
constexpr uintptr_t kIdle = 0;

}  // namespace

/// The owner word says everything that an uncontended turn needs:
///
///   kIdle              nobody's turn, nothing queued
///   kPending           nobody's turn, jobs queued, a drain is on its way
///   thread             that thread's turn, nothing queued
///   thread | kPending  that thread's turn, entries queued
///
/// Turns of an idle queue begin and end by one exchange of that word. Everything else
/// holds the mutex. Sync callers wait in the list only while it is somebody's turn: a
/// turn that ends with any of them waiting goes over to the first, without an idle
/// moment in between.
struct SerialQueue::State {
  explicit State(Executor& executorToUse) : executor(executorToUse) {}

  [[nodiscard]] bool isMine() const {
    return (owner.load(std::memory_order_relaxed) & ~kPending) == thisThread();
  }

  Executor& executor;
  std::atomic<uintptr_t> owner{kIdle};
  // The queue ended during its own turn; of the owner thread only.
  bool isOrphan = false;

  Mutex mutex;
  EntryList entries GUARDED_BY(mutex);
  size_t waiters GUARDED_BY(mutex) = 0;
  bool isDrainScheduled GUARDED_BY(mutex) = false;
  // Set while entries wait.
  std::shared_ptr<SerialQueue> self GUARDED_BY(mutex);

  void waitForTurn(SerialQueue& queue);
  void runEntriesBefore(const Waiter& waiter);
  void drain();
  void passOn();
  void scheduleDrain(std::shared_ptr<SerialQueue> queue);

  /// Makes the caller the owner unless it is somebody's turn, who then sees that an
  /// entry waits. The caller has just queued that entry.
  bool takeTurnOrMarkPending() REQUIRES(mutex);

  /// Takes out the first entry. `formerSelf` is to be let go of outside the lock.
  Entry popEntry(std::shared_ptr<SerialQueue>& formerSelf) REQUIRES(mutex) {
    Entry entry = entries.pop();
    if (entries.empty()) {
      owner.fetch_and(~kPending, std::memory_order_relaxed);
      formerSelf = std::move(self);
    }
    return entry;
  }
};

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label, Executor& executor) {
  return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label), executor));
}

SerialQueue::SerialQueue(std::string label, Executor& executor)
    : label_(std::move(label)), state_(new State(executor)) {}

SerialQueue::~SerialQueue() {
  if (isCurrent()) {
    state_->isOrphan = true;
  } else {
    delete state_;
  }
}

bool SerialQueue::isCurrent() const {
  return state_->isMine();
}

void SerialQueue::async(UniqueFunction<void()> job) {
  State& state = *state_;
  {
    const MutexLock lock(state.mutex);
    if (state.self == nullptr) state.self = shared_from_this();
    state.entries.push({std::move(job), nullptr});
    const uintptr_t before = state.owner.fetch_or(kPending, std::memory_order_acq_rel);
    // Whoever has the turn looks at the list when it ends.
    if (before != kIdle || std::exchange(state.isDrainScheduled, true)) return;
  }
  state.scheduleDrain(shared_from_this());
}

void SerialQueue::runOrQueue(UniqueFunction<void()> job) {
  uintptr_t idle = kIdle;
  if (!state_->owner.compare_exchange_strong(idle, thisThread(), std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
    return async(std::move(job));
  }
  State& state = *state_;  // the queue may end with the job
  runJob(std::move(job));
  endTurn(state);
}

SerialQueue::State* SerialQueue::beginTurn() {
  State& state = *state_;
  if (state.isMine()) return nullptr;
  uintptr_t idle = kIdle;
  if (!state.owner.compare_exchange_strong(idle, thisThread(), std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
    state.waitForTurn(*this);
  }
  return &state;
}

void SerialQueue::endTurn(State& state) {
  if (state.isOrphan) {
    delete &state;
    return;
  }
  uintptr_t mine = thisThread();
  if (!state.owner.compare_exchange_strong(mine, kIdle, std::memory_order_release,
                                           std::memory_order_relaxed)) {
    state.passOn();
  }
}

void SerialQueue::State::waitForTurn(SerialQueue& queue) {
  Waiter waiter;
  {
    const MutexLock lock(mutex);
    if (self == nullptr) self = queue.shared_from_this();
    entries.push({nullptr, &waiter});
    ++waiters;
    if (!takeTurnOrMarkPending()) {
      while (!waiter.isGranted) waiter.granted.wait(mutex);
    }
  }
  runEntriesBefore(waiter);
}

bool SerialQueue::State::takeTurnOrMarkPending() {
  uintptr_t word = owner.load(std::memory_order_relaxed);
  while (true) {
    const bool isFree = word == kIdle || word == kPending;
    const uintptr_t next = (isFree ? thisThread() : word) | kPending;
    if (owner.compare_exchange_weak(word, next, std::memory_order_acq_rel)) return isFree;
  }
}

void SerialQueue::State::runEntriesBefore(const Waiter& waiter) {
  while (true) {
    std::shared_ptr<SerialQueue> formerSelf;
    Entry entry;
    {
      const MutexLock lock(mutex);
      entry = popEntry(formerSelf);
      if (entry.waiter == &waiter) --waiters;
    }
    if (entry.waiter == &waiter) return;
    runJob(std::move(entry.job));
  }
}

void SerialQueue::State::drain() {
  {
    const MutexLock lock(mutex);
    isDrainScheduled = false;
    uintptr_t pending = kPending;
    if (!owner.compare_exchange_strong(pending, thisThread() | kPending, std::memory_order_acq_rel)) return;
  }
  for (int i = 0; i < kJobsPerDrain; ++i) {
    std::shared_ptr<SerialQueue> formerSelf;
    Entry entry;
    {
      const MutexLock lock(mutex);
      if (entries.empty() || entries.front().waiter != nullptr) break;
      entry = popEntry(formerSelf);
    }
    runJob(std::move(entry.job));
  }
  endTurn(*this);
}

void SerialQueue::State::passOn() {
  std::shared_ptr<SerialQueue> queue;
  {
    const MutexLock lock(mutex);
    if (waiters > 0) {
      // Better than waking a thread of the executor: this one is about to run anyway.
      Waiter* const next = entries.firstWaiter();
      owner.store(next->thread | kPending, std::memory_order_release);
      next->isGranted = true;
      next->granted.notify_one();
      return;
    }
    owner.store(kPending, std::memory_order_release);
    if (std::exchange(isDrainScheduled, true)) return;
    queue = self;
  }
  scheduleDrain(std::move(queue));
}

void SerialQueue::State::scheduleDrain(std::shared_ptr<SerialQueue> queue) {
  executor.execute([queue = std::move(queue)] { queue->state_->drain(); });
}

}  // namespace zun
