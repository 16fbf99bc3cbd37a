#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "daemon/DaemonOptions.h"
#include "daemon/Lifetime.h"
#include "linux/files/FileUserDefaults.h"
#include "linux/files/LinuxFileManager.h"
#include "linux/files/ResourceBundle.h"
#include "linux/http/CurlURLSession.h"
#include "linux/loop/EventLoop.h"
#include "linux/loop/UDPSockets.h"
#include "linux/loop/WorkerPool.h"
#include "linux/service/ServiceTransactions.h"
#include "linux/service/Watchdog.h"
#include "linux/system/SharedObjectLoader.h"
#include "linux/system/SystemClock.h"
#include "linux/system/SystemDeviceProperties.h"
#include "linux/system/SystemLocale.h"
#include "linux/system/SystemRandom.h"
#include "platform/PlatformServices.h"
#include "platform/UniqueFunction.h"
#include "util/ReportingServices.h"

namespace zun {

/// The real machine, as the daemon sees it.
///
/// Threading: `onTransactionChange` before the loop runs; the rest as each part says.
/// Ownership: main's. `options`, `loop` and `log` outlive it, it everything built on it.
class Machine final : public LifetimeHost {
 public:
  Machine(const DaemonOptions& options, EventLoop& loop, SystemLog& log);

  [[nodiscard]] const ReportingServices& services() const { return *services_; }

  /// `handler` hears on the loop's thread when the process transaction opens or ends.
  void onTransactionChange(UniqueFunction<void(bool isOpen)> handler) {
    transactionChanged_ = std::move(handler);
  }

  void letWatch(Watchdog& watchdog) const;

  /// `handler` is called on the loop's thread when the end has begun.
  void onStopping(UniqueFunction<void()> handler) { stopping_ = std::move(handler); }

  // LifetimeHost
  [[nodiscard]] DaemonActivity activity() override;
  void runAfter(std::chrono::nanoseconds wait, std::function<void()> action) override;
  void notifyStopping() override;
  void quit() override { loop_.quit(); }
  void exitAtOnce() override;

 private:
  EventLoop& loop_;
  SystemClock clock_;
  SystemRandom random_;
  SystemLocale locale_;
  LinuxFileManager files_;
  ResourceBundle bundle_;
  FileUserDefaults defaults_;
  SystemDeviceProperties device_;
  UniqueFunction<void(bool)> transactionChanged_;
  UniqueFunction<void()> stopping_;
  ServiceTransactions transactions_;
  UDPSockets sockets_;
  SharedObjectLoader modules_;
  const std::unique_ptr<PowerLog> powerLog_;
  std::optional<DeviceIdentity> identity_;
  std::optional<MessageLog> messageLog_;
  std::optional<ReportingServices> services_;
  // Last, so that they end first: ending transfers still call back, on the workers, and
  // those run all of that before anything above goes.
  WorkerPool workers_;
  const std::shared_ptr<SerialQueue> timerQueue_;
  CurlURLSessionService urlSessions_;
  const PlatformServices platform_;
};

}  // namespace zun
