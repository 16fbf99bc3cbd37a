#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "linux/files/LinuxFileManager.h"

namespace zun {

/// The real file system, but for birth times, which the system has no call to set.
/// One thread while either is set.
class TestFileManager final : public LinuxFileManager {
 public:
  using LinuxFileManager::LinuxFileManager;

  /// From now on the item at `path` was created then, or has no such date.
  void setCreationDate(const std::string& path, std::optional<Date> date) { creationDates_[path] = date; }
  /// Called first whenever a path's attributes are asked for.
  std::function<void(const std::string& path)> beforeAttributes;

  std::optional<FileAttributes> attributes(const std::string& path, Links links) const override {
    if (beforeAttributes) beforeAttributes(path);
    auto attributes = LinuxFileManager::attributes(path, links);
    const auto chosen = creationDates_.find(path);
    if (attributes && chosen != creationDates_.end()) attributes->creationDate = chosen->second;
    return attributes;
  }

 private:
  std::map<std::string, std::optional<Date>> creationDates_;
};

}  // namespace zun
