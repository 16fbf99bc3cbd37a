#pragma once

#include <memory>

#include "platform/MemoryBudget.h"
#include "platform/PlatformServices.h"
#include "util/DeviceIdentity.h"
#include "util/FairTurns.h"
#include "util/MessageLog.h"

namespace zun {

/// What every part of the daemon above the platform works with. Made by main; outlives
/// its users. Copies share what it holds.
///
/// A session has a copy of its own, which says for whom it keeps what.
struct ReportingServices {
  // What all clients may have the daemon keep of one kind, each its share: a quarter of it is
  // what one has that comes alone.
  static constexpr size_t kBatchMemoryBytes = size_t{256} << 20;
  static constexpr size_t kUploadMemoryBytes = size_t{258} << 20;
  static constexpr size_t kLogDataMemoryBytes = size_t{64} << 20;
  static constexpr size_t kCompressionsAtOnce = 2;

  const PlatformServices& platform;
  const DeviceIdentity& identity;
  MessageLog& messageLog;
  /// For the events that all sessions' backends keep for a later post.
  std::shared_ptr<MemoryBudget> batchMemory = std::make_shared<MemoryBudget>(kBatchMemoryBytes);
  /// For the files that are on their way to upload servers, compressed.
  std::shared_ptr<MemoryBudget> uploadMemory = std::make_shared<MemoryBudget>(kUploadMemoryBytes);
  /// For the archives of log data that are on their way.
  std::shared_ptr<MemoryBudget> logDataMemory = std::make_shared<MemoryBudget>(kLogDataMemoryBytes);
  /// For the compressions of files, of which each takes a core.
  std::shared_ptr<FairTurns> compressions = std::make_shared<FairTurns>(kCompressionsAtOnce);

  /// A session's connection, and its client's program for what outlasts that.
  BudgetHolder holder = {};
  BudgetHolder program = {};
};

}  // namespace zun
