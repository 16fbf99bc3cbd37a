#pragma once

#include <string>
#include <string_view>

#include "connectivity/ConnectionMode.h"
#include "platform/PlatformServices.h"

namespace zun {

/// The temporary files through which background uploads hand over their bodies.
/// Anybody may put a folder where theirs is to be: one that is another's, or a link, is
/// neither cleaned nor written to. Any thread.
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

  /// True if there is a new file with these bytes now.
  [[nodiscard]] bool writeContainerAtURL(const std::string& url, std::string_view bytes) const;

  void deleteContainerAtURL(const std::string& url) const;

 private:
  [[nodiscard]] bool isOwnFolder(const std::string& path) const;

  const PlatformServices& platform_;
};

}  // namespace zun
