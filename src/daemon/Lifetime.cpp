#include "daemon/Lifetime.h"

#include <algorithm>
#include <memory>
#include <thread>

namespace zun {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{5};
constexpr std::chrono::seconds kBetweenAttempts{1};  // to leave
// As long as a session's dashboard has after its end.
constexpr std::chrono::seconds kDashboardTime{10};

}  // namespace

Lifetime::Lifetime(const DaemonOptions& options, LifetimeHost& host, ServiceListener& listener,
                   Executor& patient, const Clock& clock, SystemLog& log)
    : options_(options),
      host_(host),
      listener_(listener),
      patient_(patient),
      clock_(clock),
      log_(log),
      idleExit_(options.idleExit) {}

Lifetime::~Lifetime() {
  if (end_.valid()) end_.wait();
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

void Lifetime::watchIdleness(std::chrono::nanoseconds leastWait) {
  const auto exitTime = idleExit_.exitTime();
  // One timer at a time: a busy daemon falls idle far more often than one runs out.
  if (!exitTime || isStopping_ || isWatchingIdleness_) return;
  isWatchingIdleness_ = true;
  host_.runAfter(std::max(*exitTime - clock_.monotonic(), leastWait), [this] { idleTimeOver(); });
}

void Lifetime::idleTimeOver() {
  isWatchingIdleness_ = false;
  const auto now = clock_.monotonic();
  if (isStopping_) return;
  if (!idleExit_.shouldExit(now)) {
    watchIdleness();
    return;
  }
  const bool haveDashboardsTime = now < *idleExit_.exitTime() + kDashboardTime;
  if (haveDashboardsTime && host_.activity().dashboards > 0) {
    watchIdleness(kBetweenAttempts);
    return;
  }
  // What has been told so far may be old: behind a closed door it can be looked at.
  listener_.pause();
  if (!isNeeded()) {
    stop(Dashboards::kHadTheirTime);
    return;
  }
  listener_.resume();
  watchIdleness(kBetweenAttempts);
}

bool Lifetime::isNeeded() {
  return listener_.connectionCount() > 0 || listener_.hasWaitingClient() ||
         host_.activity().isTransactionOpen;
}

// The end

void Lifetime::terminationRequested() {
  if (isStopping_) {
    host_.exitAtOnce();
  } else {
    stop(Dashboards::kHaveTime);
  }
}

void Lifetime::stop(Dashboards dashboards) {
  isStopping_ = true;
  host_.notifyStopping();
  listener_.stop();
  host_.runAfter(options_.stopGrace, [this] { graceOver(); });
  auto end = std::make_shared<std::promise<void>>();
  end_ = end->get_future();
  patient_.execute([this, dashboards, end = std::move(end)] {
    waitForTheEnd(dashboards);
    end->set_value();
  });
}

void Lifetime::waitForTheEnd(Dashboards dashboards) {
  listener_.invalidateConnections();
  QuietPeriod quiet;
  DaemonActivity now = host_.activity();
  while (true) {
    if (dashboards == Dashboards::kHadTheirTime) now.dashboards = 0;
    if (quiet.observe(now)) break;
    std::this_thread::sleep_for(kBetweenLooks);
    now = host_.activity();
  }
  if (host_.activity().dashboards > 0) tellWhatIsUnfinished();
  hasStopped_ = true;
  host_.quit();
}

void Lifetime::graceOver() {
  if (hasStopped_) return;
  tellWhatIsUnfinished();
  host_.quit();
}

void Lifetime::tellWhatIsUnfinished() {
  const DaemonActivity now = host_.activity();
  log_.error("main: stopped with {} connections, {} transfers, {} dashboards and {} jobs unfinished",
             listener_.connectionCount(), now.transfersInFlight, now.dashboards, now.jobsUnfinished);
}

}  // namespace zun
