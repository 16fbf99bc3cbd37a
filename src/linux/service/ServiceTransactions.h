#pragma once

#include <memory>

#include "linux/loop/EventLoop.h"
#include "platform/ProcessTransactions.h"
#include "platform/UniqueFunction.h"

namespace zun {

/// The process transaction: whether work is pending, told to the service manager as
/// its status and to main, which exits when idle and stops when nothing is pending.
///
/// Threading: any thread; the observer is called on the event loop's thread, once for
/// each lasting change (an end with a new begin right after it is none, a begin with an
/// end right after it is two).
/// Ownership: owned by main; `loop` outlives it.
class ServiceTransactions final : public ProcessTransactions {
 public:
  ServiceTransactions(EventLoop& loop, UniqueFunction<void(bool isOpen)> changed);
  ~ServiceTransactions() override;

  void begin() override { setOpen(true); }
  void end() override { setOpen(false); }

  [[nodiscard]] bool isOpen() const;

 private:
  struct State;
  void setOpen(bool isOpen);

  EventLoop& loop_;
  const std::shared_ptr<State> state_;
};

}  // namespace zun
