#include "daemon/Machine.h"

#include <cstdlib>
#include <utility>

#include "backends/DashboardLink.h"
#include "linux/service/ServiceManager.h"
#include "linux/system/JournalPowerLog.h"
#include "platform/TemporaryFiles.h"

namespace zun {

namespace {

constexpr int kExitAtOnce = 1;
constexpr unsigned kWorkerThreads = 2;
constexpr std::chrono::milliseconds kTimerLeeway{10};
constexpr std::chrono::seconds kLongestWrite{60};  // of a settings file, many times over

std::string homeFolder() {
  const char* const home = std::getenv("HOME");
  return home == nullptr || *home == '\0' ? "/root" : home;
}

}  // namespace

Machine::Machine(const DaemonOptions& options, EventLoop& loop, SystemLog& log)
    : loop_(loop),
      locale_(clock_),
      files_(options.root, homeFolder()),
      bundle_(options.resources.empty() ? files_.resolve(DaemonOptions::kResources) : options.resources, log),
      defaults_(files_, log),
      device_(files_, log),
      transactions_(loop,
                    [this](bool isOpen) {
                      if (transactionChanged_) transactionChanged_(isOpen);
                    }),
      sockets_(loop),
      powerLog_(makePowerLog(log)),
      workers_(kWorkerThreads),
      timerQueue_(SerialQueue::create("com.vantix.zunreportingd.lifetime", workers_)),
      urlSessions_({.caFile = options.caFile}, log),
      platform_{log,      clock_, random_,      files_,        defaults_, device_,  locale_,   bundle_,
                workers_, loop,   urlSessions_, transactions_, sockets_,  modules_, *powerLog_} {
  // Other processes may be writing there just now.
  removeLeftovers(files_, files_.resolve(FileUserDefaults::kFolder),
                  Date{clock_.now().secondsSince1970 - kLongestWrite.count()});
  identity_.emplace(platform_);
  messageLog_.emplace(platform_);
  services_.emplace(ReportingServices{platform_, *identity_, *messageLog_});
}

void Machine::letWatch(Watchdog& watchdog) const {
  for (const auto& heartbeat : workers_.heartbeats()) watchdog.watch(heartbeat);
  watchdog.watch(urlSessions_.heartbeat());
}

DaemonActivity Machine::activity() {
  const WorkerPool::Activity workers = workers_.activity();
  return {.isTransactionOpen = transactions_.isOpen(),
          .jobsTaken = workers.jobsTaken,
          .jobsUnfinished = workers.jobsUnfinished,
          .transfersInFlight = urlSessions_.transfersInFlight(),
          .dashboards = DashboardLink::awaitedCount()};
}

// The worker that hands `action` over may do so when whoever asked has gone: the loop has
// not, but has run its last by then.
void Machine::runAfter(std::chrono::nanoseconds wait, std::function<void()> action) {
  loop_.startTimer(
      {.firstFiring = wait, .interval = {}, .leeway = kTimerLeeway}, timerQueue_,
      [&loop = loop_, action = std::move(action)] { loop.post(action); }, [] {});
}

void Machine::notifyStopping() {
  notifyServiceStopping();
  if (stopping_) stopping_();
}

void Machine::exitAtOnce() {
  platform_.log.writeOut();
  std::_Exit(kExitAtOnce);
}

}  // namespace zun
