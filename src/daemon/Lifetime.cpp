#include "daemon/Lifetime.h"

#include <algorithm>

namespace zun {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{5};

}  // namespace

Lifetime::Lifetime(const DaemonOptions& options, LifetimeHost& host, ServiceListener& listener,
                   const Clock& clock)
    : options_(options), host_(host), listener_(listener), clock_(clock), idleExit_(options.idleExit) {}

Lifetime::~Lifetime() {
  if (stopping_.joinable()) stopping_.join();
}

// Idle exit

void Lifetime::transactionChanged(bool isOpen) {
  idleExit_.transactionChanged(isOpen, clock_.monotonic());
  watchIdleness();
}

void Lifetime::connectionsChanged(size_t count) {
  idleExit_.connectionsChanged(count, clock_.monotonic());
  watchIdleness();
}

void Lifetime::watchIdleness() {
  const auto exitTime = idleExit_.exitTime();
  // One timer at a time: a busy daemon falls idle far more often than one runs out.
  if (!exitTime || isStopping_ || isWatchingIdleness_) return;
  isWatchingIdleness_ = true;
  host_.runAfter(std::max(*exitTime - clock_.monotonic(), std::chrono::nanoseconds(0)),
                 [this] { idleTimeOver(); });
}

void Lifetime::idleTimeOver() {
  isWatchingIdleness_ = false;
  if (isStopping_) return;
  if (idleExit_.shouldExit(clock_.monotonic())) {
    stop();
  } else {
    watchIdleness();
  }
}

// The end

void Lifetime::terminationRequested() {
  if (isStopping_) {
    host_.exitAtOnce();
  } else {
    stop();
  }
}

void Lifetime::stop() {
  isStopping_ = true;
  host_.notifyStopping();
  listener_.stop();
  host_.runAfter(options_.stopGrace, [this] { host_.quit(); });
  stopping_ = std::thread([this] { waitForTheEnd(); });
}

void Lifetime::waitForTheEnd() {
  listener_.invalidateConnections();
  QuietPeriod quiet;
  while (!quiet.observe(host_.activity())) std::this_thread::sleep_for(kBetweenLooks);
  hasStopped_ = true;
  host_.quit();
}

}  // namespace zun
