#pragma once

#include <pthread.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>

#include "linux/files/FileDescriptor.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"
#include "values/Error.h"
#include "values/Result.h"

namespace zun {

/// Work that comes now and then, when one of two descriptors has become readable.
class DescriptorTask {
 public:
  enum class Outcome { kRests, kEnded };

  DescriptorTask() = default;
  DescriptorTask(const DescriptorTask&) = delete;
  DescriptorTask& operator=(const DescriptorTask&) = delete;
  virtual ~DescriptorTask() = default;

  /// One call at a time, each on any thread of the pool; may block for as long as it likes.
  /// Resting, it is called again once a descriptor is readable. Does not throw.
  virtual Outcome work() = 0;
  /// The same ones until it has ended. It has closed them by then.
  [[nodiscard]] virtual std::array<int, 2> descriptors() const = 0;
};

/// Threads for tasks that mostly rest. Resting ones need no thread: they stand in one epoll
/// set. Whichever thread waits there takes the next that is readable and works on it itself,
/// so that nothing is handed from thread to thread; another is made before nobody waits.
///
/// Threading: any thread. Its threads take over the class of the one that makes them, which is
/// the first one's of `add` or another of theirs.
/// Ownership: its tasks' until they have ended; at its end there are none.
class ElasticPool final {
 public:
  struct Options {
    size_t stackBytes = size_t{256} << 10;
    /// That wait beside each other, at most, and for how long before all but one go.
    size_t maximumWaiting = 4;
    std::chrono::milliseconds spareTime = std::chrono::seconds(10);
    /// Called when nobody waits and no thread can be made, on any thread; `relieve` is wanted.
    std::function<void()> onShortage = [] {};
  };

  static Result<std::unique_ptr<ElasticPool>, Error> create(const Options& options, SystemLog& log);
  ~ElasticPool();
  ElasticPool(const ElasticPool&) = delete;
  ElasticPool& operator=(const ElasticPool&) = delete;

  /// Has a thread work on it now. The system's error where there can be none: it is not kept then.
  [[nodiscard]] int add(std::shared_ptr<DescriptorTask> task) EXCLUDES(mutex_);

  /// Makes the thread that could not be made before, if it is needed still. False where that
  /// fails again.
  bool relieve() EXCLUDES(mutex_);

  [[nodiscard]] size_t threadCount() EXCLUDES(mutex_);

 private:
  struct Entry {
    std::shared_ptr<DescriptorTask> task;
    uint64_t number = 0;
    bool isWatched = false;
    bool isResting = false;
  };
  struct Thread {
    ElasticPool* pool = nullptr;
    pthread_t thread{};
    std::list<Thread>::iterator place;
  };

  ElasticPool(const Options& options, FileDescriptor events, FileDescriptor queued, SystemLog& log);
  static void* threadMain(void* thread);
  void workOn(Entry& entry) EXCLUDES(mutex_);
  bool rest(Entry& entry) EXCLUDES(mutex_);
  bool watch(Entry& entry) REQUIRES(mutex_);
  Entry* next() EXCLUDES(mutex_);
  Entry* claim(uint64_t number) REQUIRES(mutex_);
  void leave(Thread& thread) EXCLUDES(mutex_);
  int startThread() REQUIRES(mutex_);
  void addToken();

  const Options options_;
  SystemLog& log_;
  const FileDescriptor events_;  // the epoll set
  const FileDescriptor tokens_;  // readable as often as there are new tasks

  Mutex mutex_;
  std::map<uint64_t, Entry> entries_ GUARDED_BY(mutex_);  // by number
  uint64_t lastNumber_ GUARDED_BY(mutex_) = 0;
  uint64_t lastBegun_ GUARDED_BY(mutex_) = 0;
  size_t waiting_ GUARDED_BY(mutex_) = 0;  // threads
  std::list<Thread> threads_ GUARDED_BY(mutex_);
  std::list<Thread> left_ GUARDED_BY(mutex_);  // not yet joined
  bool isShort_ GUARDED_BY(mutex_) = false;    // of threads, and it has been said
  bool isEnding_ GUARDED_BY(mutex_) = false;
  std::condition_variable_any allLeft_;
};

}  // namespace zun
