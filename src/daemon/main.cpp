// zunreportingd: parses the command line, builds the object graph and runs it.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <variant>

#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "connectivity/StorageContainers.h"
#include "daemon/DaemonOptions.h"
#include "daemon/IdleExitPolicy.h"
#include "daemon/QuietPeriod.h"
#include "daemon/ReportingdAgent.h"
#include "linux/dbus/DBusServiceListener.h"
#include "linux/files/FileUserDefaults.h"
#include "linux/files/LinuxFileManager.h"
#include "linux/files/ProcessLimits.h"
#include "linux/files/ResourceBundle.h"
#include "linux/http/CurlURLSession.h"
#include "linux/loop/EventLoop.h"
#include "linux/loop/ThreadQuality.h"
#include "linux/loop/UDPSockets.h"
#include "linux/loop/WorkerPool.h"
#include "linux/service/EntitlementStore.h"
#include "linux/service/ServiceManager.h"
#include "linux/service/ServiceTransactions.h"
#include "linux/system/JournalPowerLog.h"
#include "linux/system/SharedObjectLoader.h"
#include "linux/system/SystemClock.h"
#include "linux/system/SystemDeviceProperties.h"
#include "linux/system/SystemLocale.h"
#include "linux/system/SystemLogs.h"
#include "linux/system/SystemRandom.h"
#include "storebag/NetworkStorebagFetcher.h"

namespace {

using namespace zun;

constexpr int kExitCannotStart = 1;
constexpr int kExitAtOnce = 1;
constexpr unsigned kWorkerThreads = 2;
constexpr std::chrono::milliseconds kBetweenLooks{5};

/// The real machine, as the daemon sees it.
class Machine final {
 public:
  Machine(const DaemonOptions& options, EventLoop& loop, SystemLog& systemLog,
          UniqueFunction<void(bool isOpen)> transactionChanged)
      : log(systemLog),
        locale(clock),
        files(options.root, homeFolder()),
        bundle(options.resources.empty() ? files.resolve(DaemonOptions::kResources) : options.resources, log),
        defaults(files, log),
        device(files, log),
        transactions(loop, std::move(transactionChanged)),
        sockets(loop),
        powerLog(makePowerLog(options.logTarget, log)),
        workers(kWorkerThreads),
        urlSessions({.caFile = options.caFile}, log),
        services{log,     clock, random,      files,        defaults, device,  locale,   bundle,
                 workers, loop,  urlSessions, transactions, sockets,  modules, *powerLog} {
    identity.emplace(services);
    messageLog.emplace(services);
  }

  SystemLog& log;
  SystemClock clock;
  SystemRandom random;
  SystemLocale locale;
  LinuxFileManager files;
  ResourceBundle bundle;
  FileUserDefaults defaults;
  SystemDeviceProperties device;
  ServiceTransactions transactions;
  UDPSockets sockets;
  SharedObjectLoader modules;
  std::unique_ptr<PowerLog> powerLog;
  std::optional<DeviceIdentity> identity;
  std::optional<MessageLog> messageLog;
  // Last, so that they end first: ending transfers still call back, on the workers, and
  // those run all of that before anything above goes.
  WorkerPool workers;
  CurlURLSessionService urlSessions;
  const PlatformServices services;

 private:
  static std::string homeFolder() {
    const char* const home = std::getenv("HOME");
    return home == nullptr || *home == '\0' ? "/root" : home;
  }
};

/// Ends the daemon: on a signal, or when nobody needs it any more.
///
///   running ──SIGTERM, idle──▶ stopping: connections end, transfers finish ──▶ loop quits
///                                  └──grace over, or a second signal──▶ process ends
///
/// Threading: the loop's thread, and one of its own that waits for the connections.
class Lifetime final {
 public:
  Lifetime(const DaemonOptions& options, EventLoop& loop, Machine& machine)
      : options_(options), loop_(loop), machine_(machine), idleExit_(options.idleExit) {}
  ~Lifetime() {
    if (stopping_.joinable()) stopping_.join();
  }

  void setListener(DBusServiceListener* listener) { listener_ = listener; }

  void terminationRequested() {
    if (isStopping_) std::_Exit(kExitAtOnce);
    stop();
  }

  void transactionChanged(bool isOpen) {
    idleExit_.transactionChanged(isOpen, machine_.clock.monotonic());
    watchIdleness();
  }
  void connectionsChanged(size_t count) {
    idleExit_.connectionsChanged(count, machine_.clock.monotonic());
    watchIdleness();
  }

  /// False if something still runs that cannot be waited for.
  [[nodiscard]] bool hasEndedCleanly() const { return !isStopping_ || hasStopped_; }

 private:
  void watchIdleness() {
    const auto exitTime = idleExit_.exitTime();
    // One timer at a time: a busy daemon falls idle far more often than one runs out.
    if (!exitTime || isStopping_ || isWatchingIdleness_) return;
    isWatchingIdleness_ = true;
    const auto wait = std::max(*exitTime - machine_.clock.monotonic(), std::chrono::nanoseconds(0));
    onTimer(wait, [this] {
      isWatchingIdleness_ = false;
      if (isStopping_) return;
      if (idleExit_.shouldExit(machine_.clock.monotonic())) {
        stop();
      } else {
        watchIdleness();
      }
    });
  }

  void stop() {
    isStopping_ = true;
    notifyServiceStopping();
    listener_->stop();
    onTimer(options_.stopGrace, [this] { loop_.quit(); });
    stopping_ = std::thread([this] {
      listener_->invalidateConnections();
      QuietPeriod quiet;
      while (!quiet.observe(activity())) std::this_thread::sleep_for(kBetweenLooks);
      hasStopped_ = true;
      loop_.quit();
    });
  }

  [[nodiscard]] DaemonActivity activity() {
    const WorkerPool::Activity workers = machine_.workers.activity();
    return {.isTransactionOpen = machine_.transactions.isOpen(),
            .jobsTaken = workers.jobsTaken,
            .areWorkersIdle = workers.isIdle,
            .transfersInFlight = machine_.urlSessions.transfersInFlight()};
  }

  /// Runs `action` on the loop's thread after `wait`. The worker that hands it over may
  /// do so when this object has gone: the loop has not, but has run its last by then.
  void onTimer(std::chrono::nanoseconds wait, std::function<void()> action) {
    loop_.startTimer(
        {.firstFiring = wait, .interval = {}, .leeway = std::chrono::milliseconds(10)}, timerQueue_,
        [&loop = loop_, action = std::move(action)] { loop.post(action); }, [] {});
  }

  const DaemonOptions& options_;
  EventLoop& loop_;
  Machine& machine_;
  DBusServiceListener* listener_ = nullptr;
  IdleExitPolicy idleExit_;
  const std::shared_ptr<SerialQueue> timerQueue_ =
      SerialQueue::create("com.vantix.zunreportingd.lifetime", machine_.workers);
  bool isStopping_ = false;
  bool isWatchingIdleness_ = false;
  std::atomic<bool> hasStopped_{false};
  std::thread stopping_;
};

Result<std::unique_ptr<DBusServiceListener>, Error> makeListener(const DaemonOptions& options,
                                                                 Machine& machine,
                                                                 EntitlementStore& entitlements) {
  const std::string path =
      options.listenPath.empty() ? machine.files.resolve(DaemonOptions::kServiceSocket) : options.listenPath;
  DBusListenerOptions listenerOptions;
  listenerOptions.address = "unix:path=" + path;
  listenerOptions.maximumConnections = options.maxConnections;
  listenerOptions.maximumConnectionsPerUser = options.maxConnectionsPerUser;
  return DBusServiceListener::create(std::move(listenerOptions), entitlements, machine.log);
}

int runDaemon(const DaemonOptions& options, EventLoop& loop, SystemLog& log) {
  setThreadQualityOfServiceUtility();
  log.note("startLogging: Daemon starts logging...");

  Lifetime* lifetime = nullptr;
  Machine machine(options, loop, log, [&lifetime](bool isOpen) {
    if (lifetime != nullptr) lifetime->transactionChanged(isOpen);
  });
  const PlatformServices& platform = machine.services;
  StorageContainers(platform).cleanupStorageRootFolder(ReportingSessionConnectivityHelper::POSTRequestMode());

  const ReportingServices services{platform, *machine.identity, *machine.messageLog};
  const auto fetcher = NetworkStorebagFetcher::create(platform, *machine.identity);
  EntitlementStore entitlements(machine.files.resolve("/etc/zunreportingd/entitlements.d"), log);
  auto listener = makeListener(options, machine, entitlements);
  if (!listener) {
    log.error("main: {}", listener.error().description);
    return kExitCannotStart;
  }
  const auto agent = ReportingdAgent::create(services, *fetcher);
  Lifetime lifetimeOfThis(options, loop, machine);
  lifetime = &lifetimeOfThis;
  lifetime->setListener(listener->get());
  for (const int signal : {SIGTERM, SIGINT}) {
    loop.onSignal(signal, [lifetime] { lifetime->terminationRequested(); });
  }
  (*listener)->setConnectionCountHandler([&loop, lifetime](size_t count) {
    loop.post([lifetime, count] { lifetime->connectionsChanged(count); });
  });
  (*listener)->setDelegate(agent.get());
  (*listener)->resume();
  notifyServiceReady();
  log.note("main: Listener resumes with sandbox, start loop.");

  if (!loop.run()) {
    log.error("main: the event loop has failed");
    std::_Exit(kExitCannotStart);  // clients are still served: nothing may be taken apart
  }
  if (!lifetime->hasEndedCleanly()) {
    log.error("main: stopped with {} transfers unfinished", machine.urlSessions.transfersInFlight());
    std::_Exit(EXIT_SUCCESS);  // what still runs cannot be waited for
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = parseDaemonOptions(argc, argv, ZUN_VERSION);
  if (const int* const code = std::get_if<int>(&parsed)) return *code;
  const auto& options = std::get<DaemonOptions>(parsed);

  // A peer that has gone and a full quota are told by the calls that meet them.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  EventLoop::blockSignals({SIGTERM, SIGINT});
  raiseDescriptorLimit();
  const auto log = makeSystemLog(options.logTarget, options.logLevel);
  const auto loop = EventLoop::create();
  if (loop == nullptr) {
    log->error("main: cannot create the event loop");
    return kExitCannotStart;
  }
  return runDaemon(options, *loop, *log);
}
