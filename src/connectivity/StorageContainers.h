#pragma once

#include <string>

#include "connectivity/ConnectionMode.h"
#include "platform/PlatformServices.h"

namespace zun {

/// The temporary files through which background uploads hand over their bodies.
/// No operation reports an error. Any thread.
class StorageContainers final {
 public:
  explicit StorageContainers(const PlatformServices& platform);

  /// The folder of all containers, as a directory file URL.
  [[nodiscard]] std::string storageRootFolder() const;

  /// Removes what an earlier process left over. Does nothing unless `postMode` uploads
  /// from files: only that mode makes containers.
  void cleanupStorageRootFolder(ConnectionMode postMode) const;

  /// File URL for a new container; the file is not created.
  [[nodiscard]] std::string composeUniqueContainerURL() const;

  void deleteContainerAtURL(const std::string& url) const;

 private:
  const PlatformServices& platform_;
};

}  // namespace zun
