#include "connectivity/StorageContainers.h"

#include "util/FileMatching.h"
#include "values/UUID.h"

namespace zun {

namespace {

constexpr const char* kStorageRootFolder = "/tmp/zunstorage";
constexpr const char* kContainerExtension = "zundiag";

}  // namespace

StorageContainers::StorageContainers(const PlatformServices& platform) : platform_(platform) {}

std::string StorageContainers::storageRootFolder() const {
  return fileURLOfPath(platform_.files.resolve(kStorageRootFolder)) + "/";
}

void StorageContainers::cleanupStorageRootFolder(ConnectionMode postMode) const {
  if (postMode != kBackgroundUploadMode) return;
  const std::string folder = platform_.files.resolve(kStorageRootFolder);
  (void)platform_.files.createDirectories(folder);
  deleteMatchingItems(platform_.files, fmt::format("^.*\\.{}$", kContainerExtension), LetterCase::kIgnored,
                      folder);
}

std::string StorageContainers::composeUniqueContainerURL() const {
  return fmt::format("{}{}.{}", storageRootFolder(), uuidString(platform_.random.uuidBytes()),
                     kContainerExtension);
}

void StorageContainers::deleteContainerAtURL(const std::string& url) const {
  if (const auto path = pathOfFileURL(url)) (void)platform_.files.removeItem(*path);
}

}  // namespace zun
