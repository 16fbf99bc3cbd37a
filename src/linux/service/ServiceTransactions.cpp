#include "linux/service/ServiceTransactions.h"

#include <systemd/sd-daemon.h>

#include <atomic>
#include <utility>

namespace zun {

struct ServiceTransactions::State {
  explicit State(UniqueFunction<void(bool)> observer) : changed(std::move(observer)) {}

  /// Loop thread.
  void report() {
    const bool current = isOpen;
    if (isEnded || current == lastReported) return;
    lastReported = current;
    // Here, not in `begin` and `end`: a busy service manager may make the sender wait.
    (void)sd_notify(0, current ? "STATUS=Working" : "STATUS=Idle");
    if (changed) changed(current);
  }

  std::atomic<bool> isOpen{false};
  std::atomic<bool> isEnded{false};
  bool lastReported = false;
  const UniqueFunction<void(bool)> changed;
};

ServiceTransactions::ServiceTransactions(EventLoop& loop, UniqueFunction<void(bool isOpen)> changed)
    : loop_(loop), state_(std::make_shared<State>(std::move(changed))) {}

ServiceTransactions::~ServiceTransactions() {
  state_->isEnded = true;
}

bool ServiceTransactions::isOpen() const {
  return state_->isOpen;
}

void ServiceTransactions::setOpen(bool isOpen) {
  if (state_->isOpen.exchange(isOpen) == isOpen) return;
  loop_.post([state = state_] { state->report(); });
}

}  // namespace zun
