#pragma once

#include <memory>
#include <thread>

#include "linux/loop/EventLoop.h"

namespace zun {

/// An event loop that runs on a thread of its own for as long as it lives.
class LoopThread final {
 public:
  LoopThread() : loop_(EventLoop::create()), thread_([this] { (void)loop_->run(); }) {}
  ~LoopThread() {
    loop_->quit();
    thread_.join();
  }
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  [[nodiscard]] EventLoop& loop() const { return *loop_; }

 private:
  const std::unique_ptr<EventLoop> loop_;
  std::thread thread_;
};

}  // namespace zun
