#include "linux/loop/ElasticPool.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "linux/files/PosixError.h"

namespace zun {

namespace {

constexpr uint64_t kNewTask = 0;  // no entry's number

/// Sanitizers' frames and red zones take several times the stack.
constexpr size_t stackBytes(size_t wanted) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return wanted * 8;
#else
  return wanted;
#endif
}

}  // namespace

Result<std::unique_ptr<ElasticPool>, Error> ElasticPool::create(const Options& options, SystemLog& log) {
  using Created = Result<std::unique_ptr<ElasticPool>, Error>;
  FileDescriptor events(::epoll_create1(EPOLL_CLOEXEC));
  FileDescriptor tokens(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
  epoll_event event{EPOLLIN, {.u64 = kNewTask}};
  if (!events.isOpen() || !tokens.isOpen() ||
      ::epoll_ctl(events.get(), EPOLL_CTL_ADD, tokens.get(), &event) != 0) {
    return Created::failure(posixError(errno));
  }
  return std::unique_ptr<ElasticPool>(new ElasticPool(options, std::move(events), std::move(tokens), log));
}

ElasticPool::ElasticPool(const Options& options, FileDescriptor events, FileDescriptor tokens, SystemLog& log)
    : options_(options), log_(log), events_(std::move(events)), tokens_(std::move(tokens)) {}

ElasticPool::~ElasticPool() {
  std::list<Thread> left;
  {
    const MutexLock lock(mutex_);
    isEnding_ = true;
    addToken();  // nobody takes it: it wakes them all
    while (!threads_.empty()) allLeft_.wait(mutex_);
    left.swap(left_);
  }
  for (const Thread& thread : left) ::pthread_join(thread.thread, nullptr);
}

void ElasticPool::addToken() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(tokens_.get(), &one, sizeof one);  // never full
}

int ElasticPool::add(std::shared_ptr<DescriptorTask> task) {
  const MutexLock lock(mutex_);
  const uint64_t number = lastNumber_ + 1;
  try {
    entries_[number] = {std::move(task), number};
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  const int error = waiting_ == 0 ? startThread() : 0;
  if (error != 0) {
    entries_.erase(number);
    return error;
  }
  lastNumber_ = number;
  addToken();
  return 0;
}

bool ElasticPool::relieve() {
  const MutexLock lock(mutex_);
  return !isShort_ || waiting_ > 0 || entries_.empty() || startThread() == 0;
}

size_t ElasticPool::threadCount() {
  const MutexLock lock(mutex_);
  return threads_.size();
}

/// It counts as waiting at once: it is on its way.
int ElasticPool::startThread() {
  std::list<Thread> node;
  try {
    node.emplace_back();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  Thread& thread = node.front();
  thread.pool = this;
  thread.place = node.begin();
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, stackBytes(options_.stackBytes));
  const int error = ::pthread_create(&thread.thread, &attributes, threadMain, &thread);
  ::pthread_attr_destroy(&attributes);
  if (error != 0) return error;
  threads_.splice(threads_.end(), node);
  ++waiting_;
  isShort_ = false;
  return 0;
}

void* ElasticPool::threadMain(void* argument) {
  pthread_setname_np(pthread_self(), "zun-client");
  Thread& thread = *static_cast<Thread*>(argument);
  ElasticPool& pool = *thread.pool;
  while (Entry* const entry = pool.next()) pool.workOn(*entry);
  pool.leave(thread);
  return nullptr;
}

/// The next task that has work, none for a thread that is to leave.
ElasticPool::Entry* ElasticPool::next() {
  bool isLate = false;
  for (;;) {
    int longest = -1;
    {
      const MutexLock lock(mutex_);
      if (isEnding_ || waiting_ > (isLate ? 1 : options_.maximumWaiting)) {
        --waiting_;
        return nullptr;
      }
      if (waiting_ > 1) longest = static_cast<int>(options_.spareTime.count());
    }
    epoll_event event{};
    const int count = ::epoll_wait(events_.get(), &event, 1, longest);
    isLate = count == 0;
    if (count <= 0) continue;
    const MutexLock lock(mutex_);
    Entry* const entry = claim(event.data.u64);
    if (entry == nullptr) continue;
    if (--waiting_ > 0) return entry;
    const int error = startThread();
    if (error == 0) return entry;
    if (!std::exchange(isShort_, true)) {
      log_.error("threads: some clients have to wait for others: {}", std::generic_category().message(error));
    }
    options_.onShortage();
    return entry;
  }
}

/// A task that a descriptor or a token told of, if no other thread has it.
ElasticPool::Entry* ElasticPool::claim(uint64_t number) {
  if (number == kNewTask) {
    uint64_t token = 0;
    if (isEnding_ || ::read(tokens_.get(), &token, sizeof token) < 0) return nullptr;
    return &entries_.at(++lastBegun_);
  }
  const auto found = entries_.find(number);
  if (found == entries_.end() || !std::exchange(found->second.isResting, false)) return nullptr;
  return &found->second;
}

void ElasticPool::workOn(Entry& entry) {
  for (;;) {
    if (entry.task->work() == DescriptorTask::Outcome::kEnded) break;
    // Where the set has no room for it, it keeps its thread.
    if (rest(entry)) return;
  }
  const std::shared_ptr<DescriptorTask> ended = std::move(entry.task);  // let go of after the lock
  const MutexLock lock(mutex_);
  entries_.erase(entry.number);
  ++waiting_;
}

/// From then on the task may be another thread's.
bool ElasticPool::rest(Entry& entry) {
  const MutexLock lock(mutex_);
  if (!watch(entry)) return false;
  entry.isResting = true;
  ++waiting_;
  return true;
}

bool ElasticPool::watch(Entry& entry) {
  const int operation = entry.isWatched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  const auto descriptors = entry.task->descriptors();
  for (const int descriptor : descriptors) {
    epoll_event event{EPOLLIN | EPOLLONESHOT, {.u64 = entry.number}};
    if (::epoll_ctl(events_.get(), operation, descriptor, &event) == 0) continue;
    if (!entry.isWatched && descriptor == descriptors[1]) {
      ::epoll_ctl(events_.get(), EPOLL_CTL_DEL, descriptors[0], nullptr);
    }
    return false;
  }
  entry.isWatched = true;
  return true;
}

/// Joins who left before, so that no more than one is left that nobody joins.
void ElasticPool::leave(Thread& thread) {
  std::list<Thread> before;
  {
    const MutexLock lock(mutex_);
    before.swap(left_);
    left_.splice(left_.end(), threads_, thread.place);
    if (threads_.empty()) allLeft_.notify_all();
  }
  for (const Thread& other : before) ::pthread_join(other.thread, nullptr);
}

}  // namespace zun
