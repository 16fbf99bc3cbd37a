#pragma once

#include "platform/Bundle.h"
#include "platform/Clock.h"
#include "platform/DatagramSocket.h"
#include "platform/DeviceProperties.h"
#include "platform/FileManager.h"
#include "platform/Locale.h"
#include "platform/ModuleLoader.h"
#include "platform/PowerLog.h"
#include "platform/ProcessTransactions.h"
#include "platform/RandomSource.h"
#include "platform/SerialQueue.h"
#include "platform/SystemLog.h"
#include "platform/TimerService.h"
#include "platform/URLSession.h"
#include "platform/UserDefaults.h"

namespace zun {

/// The services of the machine that the daemon is built on, handed down from main.
/// Tests hand down the real ones over a scratch folder, with time, randomness and
/// device properties of their own. Everything named here outlives its users.
struct PlatformServices {
  SystemLog& log;
  const Clock& clock;
  RandomSource& random;
  FileManager& files;
  UserDefaults& defaults;
  const DeviceProperties& device;
  const Locale& locale;
  const Bundle& bundle;
  Executor& executor;
  TimerService& timers;
  URLSessionService& urlSessions;
  ProcessTransactions& transactions;
  DatagramSocketService& sockets;
  ModuleLoader& modules;
  PowerLog& powerLog;
};

}  // namespace zun
