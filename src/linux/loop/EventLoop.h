#pragma once

#include <chrono>
#include <initializer_list>
#include <memory>

#include "linux/files/FileDescriptor.h"
#include "platform/DatagramSocket.h"
#include "platform/TimerService.h"
#include "platform/UniqueFunction.h"

namespace zun {

/// The main thread's loop: timers, read sources, signals, functions posted from other
/// threads, and the service manager's watchdog where that asks for signs of life.
///
///   create ──▶ onSignal ... ──▶ run (until quit) ──▶ end: no timer fires any more
///
/// Threading: `run` and `onSignal` on one thread; `post`, `quit`, timers and read sources
/// on any.
/// Ownership: owned by main; timers, read sources and posted functions may outlive it and
/// then do nothing.
class EventLoop final : public TimerService {
 public:
  /// Null, and errno says why, if the system has no descriptors or memory left for one.
  [[nodiscard]] static std::unique_ptr<EventLoop> create();

  /// Keeps these signals for `onSignal`: called before the process starts threads, so
  /// that all of them have the signals blocked.
  static void blockSignals(std::initializer_list<int> signals);

  ~EventLoop() override;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Runs until `quit`. False if the loop itself failed.
  bool run();

  /// Ends `run` after what was posted before. Any thread.
  void quit();

  /// Runs `function` on the loop's thread, in the order of the calls. Any thread;
  /// waits for nothing.
  void post(UniqueFunction<void()> function);

  /// Calls `handler` on the loop's thread whenever `signal` has come. One handler for
  /// each signal. False, and errno says why, where it cannot be received.
  [[nodiscard]] bool onSignal(int signal, UniqueFunction<void()> handler);

  /// The service manager, where it asks, hears of the loop only as often as `isAlive` says so
  /// too. It is called on the loop's thread with the longest that may pass between two signs.
  /// On the thread of `run`.
  void setVitalSign(UniqueFunction<bool(std::chrono::microseconds longest)> isAlive);

  /// Timers go on while the machine sleeps. An interval below a millisecond counts as
  /// one; firings that a busy queue could not take are not made up for.
  std::shared_ptr<TimerSource> startTimer(const TimerOptions& options, std::shared_ptr<SerialQueue> queue,
                                          UniqueFunction<void()> fired,
                                          UniqueFunction<void()> cancelled) override;

  /// As DatagramSocket::startReadSource, for any descriptor that can be waited on.
  std::shared_ptr<ReadSource> startReadSource(std::shared_ptr<const FileDescriptor> descriptor,
                                              std::shared_ptr<SerialQueue> queue,
                                              UniqueFunction<void()> readable,
                                              UniqueFunction<void()> cancelled);

 private:
  class Inbox;
  class Timer;
  struct Loop;

  explicit EventLoop(std::unique_ptr<Loop> loop);

  const std::unique_ptr<Loop> loop_;
};

}  // namespace zun
