#pragma once

#include <cerrno>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "linux/files/LinuxFileManager.h"
#include "linux/files/PosixError.h"

namespace zun {

/// The real file system, but for birth times, which the system has no call to set.
/// One thread while any of its members is set.
class TestFileManager final : public LinuxFileManager {
 public:
  using LinuxFileManager::LinuxFileManager;

  /// From now on the item at `path` was created then, or has no such date.
  void setCreationDate(const std::string& path, std::optional<Date> date) { creationDates_[path] = date; }
  /// Called first whenever a path's attributes are asked for.
  std::function<void(const std::string& path)> beforeAttributes;
  /// Called before a file is staged, and before a staged one is let go of.
  std::function<void(const std::string& path)> beforeDiskIsWaitedFor;
  /// The disk has no room for this file.
  std::string pathWithoutRoom;
  /// How often a file was opened to append to it.
  int openedForAppending = 0;
  /// Dates are cut as some file systems cut them.
  bool keepsWholeSeconds = false;

  std::optional<FileAttributes> attributes(const std::string& path, Links links) const override {
    if (beforeAttributes) beforeAttributes(path);
    auto attributes = LinuxFileManager::attributes(path, links);
    const auto chosen = creationDates_.find(path);
    if (attributes && chosen != creationDates_.end()) attributes->creationDate = chosen->second;
    return attributes;
  }

  Result<std::unique_ptr<StagedFile>, Error> stageFile(const std::string& path, std::string_view bytes,
                                                       Durability durability) override {
    if (path == pathWithoutRoom) {
      return Result<std::unique_ptr<StagedFile>, Error>::failure(posixError(ENOSPC));
    }
    if (!beforeDiskIsWaitedFor) return LinuxFileManager::stageFile(path, bytes, durability);
    beforeDiskIsWaitedFor(path);
    auto staged = LinuxFileManager::stageFile(path, bytes, durability);
    if (!staged) return staged;
    return std::unique_ptr<StagedFile>(std::make_unique<WatchedFile>(*this, path, std::move(*staged)));
  }

  Result<std::unique_ptr<AppendedFile>, Error> openForAppending(const std::string& path) override {
    ++openedForAppending;
    return LinuxFileManager::openForAppending(path);
  }

  std::optional<Error> setModificationDate(const std::string& path, Date date) override {
    if (keepsWholeSeconds) date.secondsSince1970 = std::floor(date.secondsSince1970);
    return LinuxFileManager::setModificationDate(path, date);
  }

 private:
  class WatchedFile final : public StagedFile {
   public:
    WatchedFile(const TestFileManager& files, std::string path, std::unique_ptr<StagedFile> file)
        : files_(files), path_(std::move(path)), file_(std::move(file)) {}
    ~WatchedFile() override { files_.beforeDiskIsWaitedFor(path_); }
    WatchedFile(const WatchedFile&) = delete;
    WatchedFile& operator=(const WatchedFile&) = delete;
    std::optional<Error> publish() override { return file_->publish(); }

   private:
    const TestFileManager& files_;
    const std::string path_;
    const std::unique_ptr<StagedFile> file_;
  };

  std::map<std::string, std::optional<Date>> creationDates_;
};

}  // namespace zun
