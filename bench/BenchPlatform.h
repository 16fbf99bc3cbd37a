#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "linux/files/FileUserDefaults.h"
#include "linux/files/LinuxFileManager.h"
#include "linux/files/ResourceBundle.h"
#include "linux/http/CurlURLSession.h"
#include "linux/loop/EventLoop.h"
#include "linux/loop/UDPSockets.h"
#include "linux/loop/WorkerPool.h"
#include "linux/service/ServiceTransactions.h"
#include "linux/system/JournalPowerLog.h"
#include "linux/system/SharedObjectLoader.h"
#include "linux/system/SystemClock.h"
#include "linux/system/SystemDeviceProperties.h"
#include "linux/system/SystemLocale.h"
#include "linux/system/SystemLogs.h"
#include "linux/system/SystemRandom.h"
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
