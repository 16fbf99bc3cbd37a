#pragma once

#include <cstdint>

#include "platform/Mutex.h"

namespace zun {

/// Counts the references that keep the process alive: all that a connectivity helper
/// asks of the agent.
class QuorxTransactionHolder {
 public:
  virtual ~QuorxTransactionHolder() = default;

  /// The holder's object lock: recursive, taken around changes of the count.
  virtual RecursiveMutex& objectLock() = 0;

  /// Drops `count` references.
  virtual void releaseQuorxTransactions(uint32_t count) = 0;
};

}  // namespace zun
