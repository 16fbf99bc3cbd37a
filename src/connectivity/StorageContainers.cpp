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
  if (!isOwnFolder(folder)) return;
  deleteMatchingItems(platform_.files, fmt::format("^.*\\.{}$", kContainerExtension), LetterCase::kIgnored,
                      folder);
}

std::string StorageContainers::composeUniqueContainerURL() const {
  return fmt::format("{}{}.{}", storageRootFolder(), uuidString(platform_.random.uuidBytes()),
                     kContainerExtension);
}

bool StorageContainers::writeContainerAtURL(const std::string& url, std::string_view bytes) const {
  const auto path = pathOfFileURL(url);
  return path && isOwnFolder(platform_.files.resolve(kStorageRootFolder)) &&
         !platform_.files.createFile(*path, bytes);
}

bool StorageContainers::isOwnFolder(const std::string& path) const {
  const auto attributes = platform_.files.attributes(path, Links::kNotFollowed);
  return attributes && attributes->isDirectory && attributes->isOwn;
}

void StorageContainers::deleteContainerAtURL(const std::string& url) const {
  if (const auto path = pathOfFileURL(url)) (void)platform_.files.removeItem(*path);
}

}  // namespace zun
