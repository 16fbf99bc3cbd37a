#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/linux/CurlURLSession.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/JournalPowerLog.h"
#include "platform/linux/LinuxFileManager.h"
#include "platform/linux/ResourceBundle.h"
#include "platform/linux/ServiceTransactions.h"
#include "platform/linux/SharedObjectLoader.h"
#include "platform/linux/SystemClock.h"
#include "platform/linux/SystemDeviceProperties.h"
#include "platform/linux/SystemLocale.h"
#include "platform/linux/SystemLogs.h"
#include "platform/linux/SystemRandom.h"
#include "platform/linux/UDPSockets.h"
#include "platform/linux/WorkerPool.h"
#include "util/ReportingServices.h"

namespace zun {

/// The real platform over a scratch folder, and the services above it.
class BenchPlatform {
 public:
  BenchPlatform() = default;
  ~BenchPlatform() { std::filesystem::remove_all(scratch); }
  BenchPlatform(const BenchPlatform&) = delete;
  BenchPlatform& operator=(const BenchPlatform&) = delete;

  const std::string scratch = makeScratchFolder();
  StreamLog log{STDERR_FILENO, LogLevel::kError};
  SystemClock clock;
  SystemRandom random;
  LinuxFileManager files{scratch, "/home/bench"};
  SystemDeviceProperties device{files, log, scratch};
  SystemLocale locale{clock};
  ResourceBundle bundle{scratch, log};
  std::unique_ptr<EventLoop> loop = EventLoop::create();
  ServiceTransactions transactions{*loop, nullptr};
  UDPSockets sockets{*loop};
  SharedObjectLoader modules;
  LinePowerLog powerLog{log};
  WorkerPool workers{2};
  FileUserDefaults defaults{files, log};
  CurlURLSessionService urlSessions{{}, log};
  PlatformServices platform{log,     clock, random,      files,        defaults, device,  locale,  bundle,
                            workers, *loop, urlSessions, transactions, sockets,  modules, powerLog};
  DeviceIdentity identity{platform};
  MessageLog messageLog{platform};
  ReportingServices services{platform, identity, messageLog};

 private:
  static std::string makeScratchFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "zun-bench-XXXXXX").string();
    return ::mkdtemp(name.data());
  }
};

}  // namespace zun
