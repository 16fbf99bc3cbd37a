// zunreportingd: parses the command line, builds the object graph and runs it.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <variant>

#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "daemon/DaemonOptions.h"
#include "daemon/Intake.h"
#include "daemon/Lifetime.h"
#include "daemon/Machine.h"
#include "daemon/MemoryReturn.h"
#include "daemon/ReportingdAgent.h"
#include "linux/dbus/DBusServiceListener.h"
#include "linux/files/ProcessLimits.h"
#include "linux/loop/EventLoop.h"
#include "linux/loop/ThreadQuality.h"
#include "linux/loop/WorkerPool.h"
#include "linux/service/EntitlementStore.h"
#include "linux/service/ServiceManager.h"
#include "linux/service/Watchdog.h"
#include "linux/system/SystemLogs.h"
#include "platform/ProcessMemory.h"
#include "storebag/NetworkStorebagFetcher.h"

namespace {

using namespace zun;

constexpr int kExitCannotStart = 1;
// At the start. A name service that is slower is not waited for.
constexpr std::chrono::seconds kPatienceWithNames{2};

/// Runs `work` to its end on the thread of `pool`, and throws what it throws.
void runOn(WorkerPool& pool, const std::function<void()>& work) {
  const auto done = std::make_shared<std::promise<void>>();
  auto isDone = done->get_future();
  pool.execute([&work, done] {
    try {
      work();
      done->set_value();
    } catch (...) {
      done->set_exception(std::current_exception());
    }
  });
  isDone.get();
}

Result<std::unique_ptr<DBusServiceListener>, Error> makeListener(const DaemonOptions& options,
                                                                 const PlatformServices& platform,
                                                                 EntitlementStore& entitlements,
                                                                 WorkerPool& maker) {
  const std::string path =
      options.listenPath.empty() ? platform.files.resolve(DaemonOptions::kServiceSocket) : options.listenPath;
  DBusListenerOptions listenerOptions;
  listenerOptions.address = "unix:path=" + path;
  listenerOptions.maximumConnections = options.maxConnections;
  listenerOptions.maximumConnectionsPerUser = options.maxConnectionsPerUser;
  listenerOptions.startThread = [&maker](std::function<void()> work) {
    std::thread thread;
    runOn(maker, [&] { thread = std::thread(std::move(work)); });
    return thread;
  };
  return DBusServiceListener::create(std::move(listenerOptions), entitlements, platform.log);
}

/// False, and errno says why, where the system has no means left to tell of signals.
bool connect(Machine& machine, EventLoop& loop, DBusServiceListener& listener, Lifetime& lifetime,
             MemoryReturn& memory) {
  for (const int signal : {SIGTERM, SIGINT}) {
    if (!loop.onSignal(signal, [&lifetime] { lifetime.terminationRequested(); })) return false;
  }
  machine.onTransactionChange([&lifetime](bool isOpen) { lifetime.transactionChanged(isOpen); });
  listener.setConnectionCountHandler([&loop, &lifetime, &memory](size_t count) {
    loop.post([&lifetime, &memory, count] {
      lifetime.connectionsChanged(count);
      memory.connectionsChanged(count);
    });
  });
  return true;
}

int runDaemon(const DaemonOptions& options, EventLoop& loop, SystemLog& log) {
  // Threads take over the class of the one that makes them, and it is for this one alone.
  // At the end it has nothing left to make, and waits for those who are still served.
  WorkerPool maker(1, "zun-maker");
  setThreadQualityOfServiceUtility();
  log.note("startLogging: Daemon starts logging...");

  std::optional<Machine> machine;
  runOn(maker, [&] { machine.emplace(options, loop, log); });
  const ReportingServices& services = machine->services();
  const PlatformServices& platform = services.platform;
  const auto fetcher = NetworkStorebagFetcher::create(platform, services.identity);
  EntitlementStore entitlements(platform.files.resolve("/etc/zunreportingd/entitlements.d"), platform.clock,
                                log);
  runOn(maker, [&] { entitlements.load(kPatienceWithNames); });
  auto listener =
      openIntake(StorageContainers(platform), ReportingSessionConnectivityHelper::POSTRequestMode(),
                 [&] { return makeListener(options, platform, entitlements, maker); });
  if (!listener) {
    log.error("main: {}", listener.error().description);
    return kExitCannotStart;
  }
  const auto agent = ReportingdAgent::create(services, *fetcher);
  Lifetime lifetime(options, *machine, **listener, maker, platform.clock, log);
  MemoryReturn memory([&machine](auto wait, auto action) { machine->runAfter(wait, std::move(action)); },
                      &returnFreeMemory);
  if (!connect(*machine, loop, **listener, lifetime, memory)) {
    log.error("main: cannot start: nobody could end it, for signals cannot be received: {}",
              std::generic_category().message(errno));
    return kExitCannotStart;
  }
  Watchdog watchdog(loop, log);
  machine->letWatch(watchdog);
  watchdog.watch((*listener)->heartbeat());
  machine->onStopping([&fetcher] { fetcher->cancelFetches(); });
  (*listener)->setDelegate(agent.get());
  (*listener)->resume();
  notifyServiceReady();
  log.note("main: Listener resumes with sandbox, start loop.");

  if (!loop.run()) {
    log.error("main: the event loop has failed");
    log.writeOut();
    std::_Exit(kExitCannotStart);  // clients are still served: nothing may be taken apart
  }
  if (!lifetime.hasEndedCleanly()) {
    log.writeOut();
    std::_Exit(EXIT_SUCCESS);  // what still runs cannot be waited for
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = parseDaemonOptions(argc, argv, ZUN_VERSION);
  if (const int* const code = std::get_if<int>(&parsed)) return *code;
  const auto& options = std::get<DaemonOptions>(parsed);

  boundAllocator();
  // A peer that has gone and a full quota are told by the calls that meet them.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  EventLoop::blockSignals({SIGTERM, SIGINT});
  raiseDescriptorLimit();
  const auto log = makeSystemLog(options.logTarget, options.logLevel, options.root);
  const auto loop = EventLoop::create();
  if (loop == nullptr) {
    log->error("main: cannot create the event loop: {}", std::generic_category().message(errno));
    return kExitCannotStart;
  }
  try {
    return runDaemon(options, *loop, *log);
  } catch (const std::system_error& error) {  // no thread can be made
    log->error("main: cannot start: {}", error.what());
    return kExitCannotStart;
  }
}
