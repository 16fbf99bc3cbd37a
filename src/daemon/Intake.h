#pragma once

#include "connectivity/StorageContainers.h"

namespace zun {

/// Makes the listener with `makeListener` once nothing is left of what an earlier process
/// stored: a client that connects at once could otherwise lose what it has just handed
/// over. Main thread. Errors: those of `makeListener`.
template <typename MakeListener>
auto openIntake(const StorageContainers& containers, ConnectionMode postMode, MakeListener&& makeListener) {
  containers.cleanupStorageRootFolder(postMode);
  return makeListener();
}

}  // namespace zun
