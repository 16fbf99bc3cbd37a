#pragma once

#include "platform/PlatformServices.h"
#include "util/DeviceIdentity.h"
#include "util/MessageLog.h"

namespace zun {

/// What every part of the daemon above the platform works with. Made by main; outlives
/// its users.
struct ReportingServices {
  const PlatformServices& platform;
  const DeviceIdentity& identity;
  MessageLog& messageLog;
};

}  // namespace zun
