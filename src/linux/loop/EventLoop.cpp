#include "linux/loop/EventLoop.h"

#include <sys/epoll.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <unordered_map>
#include <utility>
#include <vector>

#include "linux/files/WakeDescriptor.h"
#include "linux/loop/ReadSources.h"
#include "platform/Mutex.h"

namespace zun {

namespace {

using Microseconds = uint64_t;

struct SourceDeleter {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using Source = std::unique_ptr<sd_event_source, SourceDeleter>;

struct EventDeleter {
  void operator()(sd_event* event) const { sd_event_unref(event); }
};

Microseconds now() {
  timespec time{};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return static_cast<Microseconds>(time.tv_sec) * 1'000'000 + static_cast<Microseconds>(time.tv_nsec) / 1000;
}

/// Rounded up; nothing below 0, nothing that could overflow when added to now.
Microseconds microseconds(std::chrono::nanoseconds duration) {
  if (duration.count() <= 0) return 0;
  return static_cast<Microseconds>((duration.count() - 1) / 1000) + 1;
}

constexpr Microseconds kShortestInterval = 1000;

/// Of a call of libsystemd's; where it failed, errno says why.
bool succeeded(int outcome) {
  if (outcome < 0) errno = -outcome;
  return outcome >= 0;
}

}  // namespace

/// Functions on their way to the loop. Shared with timers, which may outlive the loop.
class EventLoop::Inbox final {
 public:
  [[nodiscard]] const WakeDescriptor& wakeUp() const { return wakeUp_; }

  void post(UniqueFunction<void()> function) {
    const MutexLock lock(mutex_);
    if (isClosed_) return;  // `function` ends after the lock, with the call
    functions_.push_back(std::move(function));
    if (functions_.size() == 1) wakeUp_.signal();
  }

  std::vector<UniqueFunction<void()>> take() {
    wakeUp_.take();
    const MutexLock lock(mutex_);
    return std::exchange(functions_, {});
  }

  void close() {
    std::vector<UniqueFunction<void()>> left;
    const MutexLock lock(mutex_);
    isClosed_ = true;
    left.swap(functions_);
  }

 private:
  const WakeDescriptor wakeUp_;
  Mutex mutex_;
  std::vector<UniqueFunction<void()>> functions_ GUARDED_BY(mutex_);
  bool isClosed_ GUARDED_BY(mutex_) = false;
};

struct EventLoop::Loop {
  std::shared_ptr<Inbox> inbox;
  std::unique_ptr<sd_event, EventDeleter> event;
  Source wakeUp;
  std::shared_ptr<ReadSources> readSources;
  Source readiness;
  bool isQuitting = false;
  Microseconds watchdogInterval = 0;
  Source watchdog;
  UniqueFunction<bool(std::chrono::microseconds)> isAlive;

  ~Loop() {
    if (readSources != nullptr) readSources->end();
  }

  /// Calls `handler` with this loop whenever `descriptor` can be read from.
  bool onReadable(Source& source, int descriptor, sd_event_io_handler_t handler) {
    sd_event_source* added = nullptr;
    if (!succeeded(sd_event_add_io(event.get(), &added, descriptor, EPOLLIN, handler, this))) return false;
    source.reset(added);
    return true;
  }

  struct SignalHandler {
    UniqueFunction<void()> handler;
    Source source;
  };
  std::vector<std::unique_ptr<SignalHandler>> signalHandlers;

  // Started and neither cancelled nor, for one-shots, fired.
  struct RunningTimer {
    std::shared_ptr<Timer> timer;
    Source source;
  };
  std::unordered_map<Timer*, RunningTimer> timers;

  bool startWatchdog();
  void giveVitalSign();
  void runPosted();
  void add(const std::shared_ptr<Timer>& timer);
  void fire(Timer& timer);
};

/// The handlers belong to the queue: they are called and let go of there only.
class EventLoop::Timer final : public TimerSource, public std::enable_shared_from_this<Timer> {
 public:
  Timer(const TimerOptions& options, std::shared_ptr<SerialQueue> queue, UniqueFunction<void()> fired,
        UniqueFunction<void()> cancelled)
      : interval_(options.interval ? std::max(microseconds(*options.interval), kShortestInterval) : 0),
        leeway_(std::max(microseconds(options.leeway), Microseconds{1})),
        deadline_(now() + microseconds(options.firstFiring)),
        queue_(std::move(queue)),
        fired_(std::move(fired)),
        cancelled_(std::move(cancelled)) {}

  void attach(Loop& loop, std::shared_ptr<Inbox> inbox) {
    loop_ = &loop;
    inbox_ = std::move(inbox);
  }

  void cancel() override {
    if (isCancelled_.exchange(true)) return;
    inbox_->post([loop = loop_, self = shared_from_this()] { loop->timers.erase(self.get()); });
    queue_->async([self = shared_from_this()] {
      const UniqueFunction<void()> handler = std::exchange(self->cancelled_, nullptr);
      self->fired_ = nullptr;
      if (handler) handler();
    });
  }

  /// Loop thread.
  void queueFiring() {
    // A queue that lags behind gets one firing, not a heap of them.
    if (isCancelled_ || isFiringQueued_.exchange(true)) return;
    queue_->async([self = shared_from_this()] { self->fireOnQueue(); });
  }

  /// Moves on to the next firing, skipping those that the loop was too late for; false
  /// for a one-shot. Loop thread.
  bool advance() {
    if (interval_ == 0) return false;
    deadline_ += interval_;
    const Microseconds time = now();
    if (deadline_ < time) deadline_ += (time - deadline_) / interval_ * interval_;
    return true;
  }

  [[nodiscard]] Microseconds deadline() const { return deadline_; }
  [[nodiscard]] Microseconds leeway() const { return leeway_; }
  [[nodiscard]] bool isCancelled() const { return isCancelled_; }
  [[nodiscard]] Loop& loop() const { return *loop_; }

 private:
  void fireOnQueue() {
    isFiringQueued_ = false;
    if (isCancelled_) return;
    if (interval_ != 0) {
      fired_();
      return;
    }
    const UniqueFunction<void()> handler = std::exchange(fired_, nullptr);
    handler();
  }

  const Microseconds interval_;  // 0: fires once
  const Microseconds leeway_;
  Microseconds deadline_;  // of the loop's thread, once attached
  const std::shared_ptr<SerialQueue> queue_;
  UniqueFunction<void()> fired_;
  UniqueFunction<void()> cancelled_;
  Loop* loop_ = nullptr;  // alive while the inbox takes what is posted
  std::shared_ptr<Inbox> inbox_;
  std::atomic<bool> isCancelled_{false};
  std::atomic<bool> isFiringQueued_{false};
};

/// Does nothing unless the service manager asked.
bool EventLoop::Loop::startWatchdog() {
  if (sd_watchdog_enabled(0, &watchdogInterval) <= 0) return true;
  constexpr auto onTime = [](sd_event_source*, uint64_t, void* context) noexcept {
    static_cast<Loop*>(context)->giveVitalSign();
    return 0;
  };
  sd_event_source* source = nullptr;
  if (!succeeded(sd_event_add_time(event.get(), &source, CLOCK_MONOTONIC, 0, 1, onTime, this))) return false;
  watchdog.reset(source);
  return true;
}

void EventLoop::Loop::giveVitalSign() {
  if (!isAlive || isAlive(std::chrono::microseconds(watchdogInterval))) (void)sd_notify(0, "WATCHDOG=1");
  (void)sd_event_source_set_time_relative(watchdog.get(), watchdogInterval / 2);
  (void)sd_event_source_set_enabled(watchdog.get(), SD_EVENT_ONESHOT);
}

void EventLoop::Loop::runPosted() {
  for (const UniqueFunction<void()>& function : inbox->take()) function();
}

void EventLoop::Loop::add(const std::shared_ptr<Timer>& timer) {
  if (timer->isCancelled()) return;
  constexpr auto onTime = [](sd_event_source*, uint64_t, void* context) noexcept {
    auto* const due = static_cast<Timer*>(context);
    due->loop().fire(*due);
    return 0;
  };
  sd_event_source* source = nullptr;
  const int outcome = sd_event_add_time(event.get(), &source, CLOCK_BOOTTIME, timer->deadline(),
                                        timer->leeway(), onTime, timer.get());
  if (outcome < 0) {
    // Out of memory: late is worse than early, never is worst.
    timer->queueFiring();
    return;
  }
  timers.emplace(timer.get(), RunningTimer{timer, Source(source)});
}

void EventLoop::Loop::fire(Timer& timer) {
  const auto found = timers.find(&timer);
  if (found == timers.end()) return;
  timer.queueFiring();
  if (!timer.advance()) {
    timers.erase(found);
    return;
  }
  sd_event_source* const source = found->second.source.get();
  (void)sd_event_source_set_time(source, timer.deadline());
  (void)sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
}

std::unique_ptr<EventLoop> EventLoop::create() {
  auto loop = std::make_unique<Loop>();
  sd_event* event = nullptr;
  if (!succeeded(sd_event_new(&event))) return nullptr;
  loop->event.reset(event);
  loop->inbox = std::make_shared<Inbox>();
  const WakeDescriptor& wakeUp = loop->inbox->wakeUp();
  if (!wakeUp.isOpen()) return nullptr;
  loop->readSources = ReadSources::create();
  if (loop->readSources == nullptr) return nullptr;
  constexpr auto onWakeUp = [](sd_event_source*, int, uint32_t, void* context) noexcept {
    static_cast<Loop*>(context)->runPosted();
    return 0;
  };
  constexpr auto onReadiness = [](sd_event_source*, int, uint32_t, void* context) noexcept {
    static_cast<Loop*>(context)->readSources->dispatch();
    return 0;
  };
  if (!loop->onReadable(loop->wakeUp, wakeUp.get(), onWakeUp)) return nullptr;
  if (!loop->onReadable(loop->readiness, loop->readSources->descriptor(), onReadiness)) return nullptr;
  if (!loop->startWatchdog()) return nullptr;
  return std::unique_ptr<EventLoop>(new EventLoop(std::move(loop)));
}

void EventLoop::blockSignals(std::initializer_list<int> signals) {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int signal : signals) sigaddset(&blocked, signal);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

EventLoop::EventLoop(std::unique_ptr<Loop> loop) : loop_(std::move(loop)) {}

EventLoop::~EventLoop() {
  loop_->inbox->close();
}

bool EventLoop::run() {
  loop_->isQuitting = false;
  while (!loop_->isQuitting) {
    const int outcome = sd_event_run(loop_->event.get(), UINT64_MAX);
    if (outcome < 0 && outcome != -EINTR) return false;
  }
  return true;
}

void EventLoop::quit() {
  post([loop = loop_.get()] { loop->isQuitting = true; });
}

void EventLoop::post(UniqueFunction<void()> function) {
  loop_->inbox->post(std::move(function));
}

bool EventLoop::onSignal(int signal, UniqueFunction<void()> handler) {
  blockSignals({signal});
  auto entry = std::make_unique<Loop::SignalHandler>();
  entry->handler = std::move(handler);
  constexpr auto onArrival = [](sd_event_source*, const signalfd_siginfo*, void* context) noexcept {
    static_cast<Loop::SignalHandler*>(context)->handler();
    return 0;
  };
  sd_event_source* source = nullptr;
  if (!succeeded(sd_event_add_signal(loop_->event.get(), &source, signal, onArrival, entry.get()))) {
    return false;
  }
  entry->source.reset(source);
  loop_->signalHandlers.push_back(std::move(entry));
  return true;
}

void EventLoop::setVitalSign(UniqueFunction<bool(std::chrono::microseconds)> isAlive) {
  loop_->isAlive = std::move(isAlive);
}

std::shared_ptr<TimerSource> EventLoop::startTimer(const TimerOptions& options,
                                                   std::shared_ptr<SerialQueue> queue,
                                                   UniqueFunction<void()> fired,
                                                   UniqueFunction<void()> cancelled) {
  const auto timer =
      std::make_shared<Timer>(options, std::move(queue), std::move(fired), std::move(cancelled));
  timer->attach(*loop_, loop_->inbox);
  post([loop = loop_.get(), timer] { loop->add(timer); });
  return timer;
}

std::shared_ptr<ReadSource> EventLoop::startReadSource(std::shared_ptr<const FileDescriptor> descriptor,
                                                       std::shared_ptr<SerialQueue> queue,
                                                       UniqueFunction<void()> readable,
                                                       UniqueFunction<void()> cancelled) {
  return loop_->readSources->start(std::move(descriptor), std::move(queue), std::move(readable),
                                   std::move(cancelled));
}

}  // namespace zun
