#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "linux/loop/EventLoop.h"
#include "linux/system/Heartbeat.h"
#include "platform/SystemLog.h"

namespace zun {

/// Lets the loop tell the service manager that the process lives only while the threads do
/// that everybody depends on: a transfer thread that stands still is none that a running
/// loop makes up for. The manager then ends the process and starts it anew.
///
/// Threading: the loop's thread; `watch` before the loop runs.
/// Ownership: of main. `loop` and `log` outlive it.
class Watchdog final {
 public:
  Watchdog(EventLoop& loop, SystemLog& log);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  void watch(std::shared_ptr<const Heartbeat> heartbeat) { heartbeats_.push_back(std::move(heartbeat)); }

 private:
  [[nodiscard]] bool doAllMove(std::chrono::microseconds limit);

  EventLoop& loop_;
  SystemLog& log_;
  std::vector<std::shared_ptr<const Heartbeat>> heartbeats_;
  bool isTold_ = false;
};

}  // namespace zun
