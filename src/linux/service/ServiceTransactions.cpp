#include "linux/service/ServiceTransactions.h"

#include <systemd/sd-daemon.h>

#include <atomic>
#include <cstdint>
#include <utility>

namespace zun {

struct ServiceTransactions::State {
  explicit State(UniqueFunction<void(bool)> observer) : changed(std::move(observer)) {}

  static bool isOpenAfter(uint64_t changes) { return changes % 2 == 1; }

  /// Loop thread.
  void report() {
    const uint64_t current = changes;
    if (isEnded || current == lastReported) return;
    const uint64_t earlier = std::exchange(lastReported, current);
    const bool isOpen = isOpenAfter(current);
    if (isOpen == isOpenAfter(earlier)) {
      // An open one that was never seen is work all the same.
      if (!isOpen && changed) {
        changed(true);
        changed(false);
      }
      return;
    }
    // Here, not in `begin` and `end`: a busy service manager may make the sender wait.
    (void)sd_notify(0, isOpen ? "STATUS=Working" : "STATUS=Idle");
    if (changed) changed(isOpen);
  }

  std::atomic<uint64_t> changes{0};  // of whether one is open
  std::atomic<bool> isEnded{false};
  uint64_t lastReported = 0;
  const UniqueFunction<void(bool)> changed;
};

ServiceTransactions::ServiceTransactions(EventLoop& loop, UniqueFunction<void(bool isOpen)> changed)
    : loop_(loop), state_(std::make_shared<State>(std::move(changed))) {}

ServiceTransactions::~ServiceTransactions() {
  state_->isEnded = true;
}

bool ServiceTransactions::isOpen() const {
  return State::isOpenAfter(state_->changes);
}

void ServiceTransactions::setOpen(bool isOpen) {
  uint64_t changes = state_->changes;
  do {
    if (State::isOpenAfter(changes) == isOpen) return;
  } while (!state_->changes.compare_exchange_weak(changes, changes + 1));
  loop_.post([state = state_] { state->report(); });
}

}  // namespace zun
