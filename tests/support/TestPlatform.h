#pragma once

#include <gtest/gtest.h>

#include <thread>

#include "linux/files/FileUserDefaults.h"
#include "linux/http/CurlURLSession.h"
#include "linux/loop/UDPSockets.h"
#include "linux/loop/WorkerPool.h"
#include "linux/system/JournalPowerLog.h"
#include "linux/system/SharedObjectLoader.h"
#include "platform/PlatformServices.h"
#include "support/Fakes.h"
#include "support/LoopThread.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"
#include "support/TestFileManager.h"

namespace zun {

/// A whole platform over a scratch folder: real files, defaults, worker threads, sockets
/// and URL sessions; time, timers, randomness, device, locale and bundle of the test's.
class TestPlatform {
 public:
  /// `executorToUse`: a test's own, such as a ManualExecutor; null for real threads.
  explicit TestPlatform(Executor* executorToUse = nullptr, std::string caFile = {})
      : files(scratch.path(), "/home/tester"),
        defaults(files, log),
        timers(clock),
        workers(2),
        urlSessions({.caFile = std::move(caFile)}, log),
        sockets(loopThread.loop()),
        services{log,     clock,       random,
                 files,   defaults,    device,
                 locale,  bundle,      executorToUse == nullptr ? workers : *executorToUse,
                 timers,  urlSessions, transactions,
                 sockets, modules,     powerLog} {}

  /// Timers own what still has jobs to run, and those may start timers: the timers let go
  /// of it first and themselves go after the workers. What is queued by now may still make
  /// URL sessions, which go before them.
  ~TestPlatform() {
    timers.end();
    while (!workers.activity().isIdle) std::this_thread::yield();
  }
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  ScratchFolder scratch;
  RecordingLog log;
  FakeClock clock;
  FakeRandom random;
  FakeDevice device;
  FakeLocale locale;
  FakeBundle bundle;
  FakeTransactions transactions;
  SharedObjectLoader modules;
  LinePowerLog powerLog{log};
  TestFileManager files;
  FileUserDefaults defaults;
  FakeTimers timers;
  WorkerPool workers;  // runs what is left of the jobs before anything above goes
  CurlURLSessionService urlSessions;
  LoopThread loopThread;  // for the sockets
  UDPSockets sockets;
  PlatformServices services;
};

/// A test on a platform of its own. An error line that the test did not take out of
/// the log fails it.
class PlatformTest : public ::testing::Test {
 protected:
  /// As TestPlatform's.
  explicit PlatformTest(Executor* executorToUse = nullptr, std::string caFile = {})
      : platform_(executorToUse, std::move(caFile)) {}

  void TearDown() override {
    for (const std::string& line : platform_.log.takeErrors())
      ADD_FAILURE() << "unexpected error line: " << line;
  }

  /// Fails unless exactly these error lines were written since the last call, in order.
  void expectErrors(const std::vector<std::string>& lines) { EXPECT_EQ(platform_.log.takeErrors(), lines); }
  void expectDebugLine(const std::string& line) { expectLine(LogLevel::kDebug, line); }
  void expectDefaultLine(const std::string& line) { expectLine(LogLevel::kDefault, line); }

  TestPlatform platform_;

 private:
  void expectLine(LogLevel level, const std::string& line) {
    EXPECT_TRUE(platform_.log.contains(level, line)) << "no such line: " << line;
  }
};

}  // namespace zun
