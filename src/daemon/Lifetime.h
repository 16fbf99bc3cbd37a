#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>

#include "daemon/DaemonOptions.h"
#include "daemon/IdleExitPolicy.h"
#include "daemon/QuietPeriod.h"
#include "platform/Clock.h"
#include "platform/SerialQueue.h"
#include "platform/ServiceConnection.h"
#include "platform/SystemLog.h"

namespace zun {

/// The process that a Lifetime ends. Any thread.
class LifetimeHost {
 public:
  virtual ~LifetimeHost() = default;

  [[nodiscard]] virtual DaemonActivity activity() = 0;
  /// Runs `action` on the loop's thread once `wait` is over, or never if the loop ends first.
  virtual void runAfter(std::chrono::nanoseconds wait, std::function<void()> action) = 0;
  /// Tells the service manager, and whoever can hurry, that the end has begun.
  virtual void notifyStopping() = 0;
  /// Ends the loop.
  virtual void quit() = 0;
  /// Ends the process without taking anything apart. Does not come back.
  virtual void exitAtOnce() = 0;
};

/// Ends the daemon: on a signal, or when nobody needs it any more.
///
///   running ──SIGTERM, idle──▶ stopping: connections end, transfers finish, dashboards
///                                  │     have their time ──▶ loop quits
///                                  └──grace over, or a second signal──▶ process ends
///
/// An idle daemon gives dashboards their time before it stops, while it still serves.
///
/// Threading: the loop's thread, and one of `patient`, whose jobs may wait, for the end.
/// Ownership: main's; everything handed in outlives it.
class Lifetime final {
 public:
  Lifetime(const DaemonOptions& options, LifetimeHost& host, ServiceListener& listener, Executor& patient,
           const Clock& clock, SystemLog& log);
  ~Lifetime();
  Lifetime(const Lifetime&) = delete;
  Lifetime& operator=(const Lifetime&) = delete;

  void terminationRequested();
  void transactionChanged(bool isOpen);
  void connectionsChanged(size_t count);

  /// False if something still runs that cannot be waited for; the log has said what.
  [[nodiscard]] bool hasEndedCleanly() const { return !isStopping_ || hasStopped_; }

 private:
  enum class Dashboards : bool { kHadTheirTime, kHaveTime };

  void watchIdleness(std::chrono::nanoseconds leastWait = {});
  void idleTimeOver();
  [[nodiscard]] bool isNeeded();
  void stop(Dashboards dashboards);
  void waitForTheEnd(Dashboards dashboards);
  void graceOver();
  void tellWhatIsUnfinished();

  const DaemonOptions& options_;
  LifetimeHost& host_;
  ServiceListener& listener_;
  Executor& patient_;
  const Clock& clock_;
  SystemLog& log_;
  IdleExitPolicy idleExit_;
  bool isStopping_ = false;
  bool isWatchingIdleness_ = false;
  std::atomic<bool> hasStopped_{false};
  std::future<void> end_;  // that has begun
};

}  // namespace zun
