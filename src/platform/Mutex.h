#pragma once

#include <mutex>

/// Clang's thread-safety annotations; other compilers see nothing. The clang build
/// treats a violation as an error.
#if defined(__clang__)
#define ZUN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZUN_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) ZUN_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY ZUN_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) ZUN_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) ZUN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ZUN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZUN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ZUN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ZUN_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zun {

/// std::mutex that the thread-safety analysis understands.
class CAPABILITY("mutex") Mutex final {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// A monitor: the thread that holds it may take it again.
class CAPABILITY("mutex") RecursiveMutex final {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

/// Holds `Lockable` for its scope.
template <typename Lockable>
class SCOPED_CAPABILITY LockGuard final {
 public:
  explicit LockGuard(Lockable& lockable) ACQUIRE(lockable) : lockable_(lockable) { lockable_.lock(); }
  ~LockGuard() RELEASE() { lockable_.unlock(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  Lockable& lockable_;
};

using MutexLock = LockGuard<Mutex>;
using RecursiveMutexLock = LockGuard<RecursiveMutex>;

}  // namespace zun
