#include "linux/loop/ReadSources.h"

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <utility>

namespace zun {

/// The handlers belong to the queue: they are called and let go of there only.
class ReadSources::Source final : public ReadSource, public std::enable_shared_from_this<Source> {
 public:
  Source(std::shared_ptr<ReadSources> owner, uint64_t identifier,
         std::shared_ptr<const FileDescriptor> descriptor, std::shared_ptr<SerialQueue> queue,
         UniqueFunction<void()> readable, UniqueFunction<void()> cancelled)
      : owner_(std::move(owner)),
        identifier_(identifier),
        descriptor_(std::move(descriptor)),
        queue_(std::move(queue)),
        readable_(std::move(readable)),
        cancelled_(std::move(cancelled)) {}

  void cancel() override {
    if (isCancelled_.exchange(true)) return;
    owner_->remove(identifier_, descriptor_->get());
    queue_->async([self = shared_from_this()] {
      const UniqueFunction<void()> handler = std::exchange(self->cancelled_, nullptr);
      self->readable_ = nullptr;
      self->descriptor_.reset();  // the socket's owner closes it from here on
      if (handler) handler();
    });
  }

  /// Loop thread.
  void queueFiring() {
    queue_->async([self = shared_from_this()] { self->fireOnQueue(); });
  }

  bool arm(int operation) { return owner_->control(operation, descriptor_->get(), identifier_); }

 private:
  void fireOnQueue() {
    if (isCancelled_) return;
    readable_();
    if (!isCancelled_) (void)arm(EPOLL_CTL_MOD);
  }

  const std::shared_ptr<ReadSources> owner_;
  const uint64_t identifier_;
  // Kept open while the source is there, so that its number cannot become another's.
  std::shared_ptr<const FileDescriptor> descriptor_;
  const std::shared_ptr<SerialQueue> queue_;
  UniqueFunction<void()> readable_;
  UniqueFunction<void()> cancelled_;
  std::atomic<bool> isCancelled_{false};
};

std::shared_ptr<ReadSources> ReadSources::create() {
  FileDescriptor epoll(epoll_create1(EPOLL_CLOEXEC));
  if (!epoll.isOpen()) return nullptr;
  return std::shared_ptr<ReadSources>(new ReadSources(std::move(epoll)));
}

ReadSources::ReadSources(FileDescriptor epoll) : epoll_(std::move(epoll)) {}

ReadSources::~ReadSources() = default;

bool ReadSources::control(int operation, int descriptor, uint64_t identifier) const {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLONESHOT;
  event.data.u64 = identifier;
  return epoll_ctl(epoll_.get(), operation, descriptor, &event) == 0;
}

std::shared_ptr<ReadSource> ReadSources::start(std::shared_ptr<const FileDescriptor> descriptor,
                                               std::shared_ptr<SerialQueue> queue,
                                               UniqueFunction<void()> readable,
                                               UniqueFunction<void()> cancelled) {
  const int number = descriptor->get();
  uint64_t identifier = 0;
  std::shared_ptr<Source> source;
  {
    const MutexLock lock(mutex_);
    if (hasEnded_) return nullptr;
    identifier = ++nextIdentifier_;
    source = std::make_shared<Source>(shared_from_this(), identifier, std::move(descriptor), std::move(queue),
                                      std::move(readable), std::move(cancelled));
    sources_.emplace(identifier, source);
  }
  // Known before it is armed: its first event may come at once.
  if (source->arm(EPOLL_CTL_ADD)) return source;
  remove(identifier, number);
  return nullptr;
}

std::shared_ptr<ReadSources::Source> ReadSources::find(uint64_t identifier) {
  const MutexLock lock(mutex_);
  const auto found = sources_.find(identifier);
  return found == sources_.end() ? nullptr : found->second;
}

void ReadSources::dispatch() {
  constexpr int kEventsAtOnce = 64;  // others of the loop get their turn in between
  std::array<epoll_event, kEventsAtOnce> events{};
  const int count = epoll_wait(epoll_.get(), events.data(), kEventsAtOnce, /*timeout=*/0);
  for (int i = 0; i < count; ++i) {
    // One that was removed meanwhile is not found.
    if (const auto source = find(events[static_cast<size_t>(i)].data.u64)) source->queueFiring();
  }
}

void ReadSources::remove(uint64_t identifier, int descriptor) {
  (void)control(EPOLL_CTL_DEL, descriptor, identifier);
  std::shared_ptr<Source> removed;  // ends after the lock
  const MutexLock lock(mutex_);
  const auto found = sources_.find(identifier);
  if (found == sources_.end()) return;
  removed = std::move(found->second);
  sources_.erase(found);
}

void ReadSources::end() {
  SourceTable left;  // ends after the lock
  const MutexLock lock(mutex_);
  hasEnded_ = true;
  left.swap(sources_);
}

}  // namespace zun
