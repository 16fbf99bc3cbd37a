#pragma once

#include <memory>

#include "platform/MemoryBudget.h"
#include "platform/PlatformServices.h"
#include "util/DeviceIdentity.h"
#include "util/MessageLog.h"

namespace zun {

/// What every part of the daemon above the platform works with. Made by main; outlives
/// its users. Copies share what it holds.
struct ReportingServices {
  static constexpr size_t kBatchMemoryBytes = size_t{256} << 20;
  static constexpr size_t kUploadMemoryBytes = size_t{128} << 20;

  const PlatformServices& platform;
  const DeviceIdentity& identity;
  MessageLog& messageLog;
  /// For the events that all sessions' backends keep for a later post.
  std::shared_ptr<MemoryBudget> batchMemory = std::make_shared<MemoryBudget>(kBatchMemoryBytes);
  /// For the files that are on their way to upload servers, compressed.
  std::shared_ptr<MemoryBudget> uploadMemory = std::make_shared<MemoryBudget>(kUploadMemoryBytes);
};

}  // namespace zun
