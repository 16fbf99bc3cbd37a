#pragma once

#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace zun {

/// The real file system.
///
/// What the daemon creates is its own: files 0600, folders 0700; a file that is
/// replaced keeps its mode. Regular files alone are read, so that no pipe or device
/// under a path of ours can make the daemon wait.
///
/// Threading: any thread. The file system itself is the only shared state.
class LinuxFileManager : public FileManager {
 public:
  /// `root` stands before every absolute path that `resolve` is given; empty or "/"
  /// for none. `home` is what `~` stands for, itself under the root.
  LinuxFileManager(std::string_view root, std::string_view home);

  [[nodiscard]] std::string resolve(std::string_view path) const override;
  [[nodiscard]] Result<std::string, Error> readFile(const std::string& path,
                                                    uint64_t maximumBytes) const override;
  std::optional<Error> writeFileAtomically(const std::string& path, std::string_view bytes,
                                           Durability durability = Durability::kBestEffort) override;
  [[nodiscard]] Result<std::unique_ptr<StagedFile>, Error> stageFile(
      const std::string& path, std::string_view bytes,
      Durability durability = Durability::kBestEffort) override;
  std::optional<Error> createFile(const std::string& path, std::string_view bytes) override;
  [[nodiscard]] Result<std::unique_ptr<AppendedFile>, Error> openForAppending(
      const std::string& path) override;
  std::optional<Error> createDirectories(const std::string& path) override;
  std::optional<Error> removeItem(const std::string& path) override;
  std::optional<Error> allowOwnerAccess(const std::string& path) override;
  std::optional<Error> setModificationDate(const std::string& path, Date date) override;
  [[nodiscard]] Result<std::vector<std::string>, Error> listDirectory(const std::string& path) const override;
  [[nodiscard]] std::vector<std::string> enumerateRecursively(const std::string& path) const override;
  [[nodiscard]] std::optional<FileAttributes> attributes(const std::string& path,
                                                         Links links = Links::kFollowed) const override;

 private:
  const std::string root_;
  const std::string home_;
};

}  // namespace zun
