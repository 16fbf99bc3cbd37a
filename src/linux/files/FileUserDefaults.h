#pragma once

#include <chrono>
#include <map>
#include <string>

#include "linux/files/PropertyListFile.h"
#include "platform/FileManager.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"
#include "platform/UserDefaults.h"

namespace zun {

/// User defaults as property lists, one file per suite:
/// `~/Library/Preferences/<suite>.plist`.
///
///   read:  file changed? ──no──▶ the dictionary in memory
///                        └─yes─▶ read and parse; bad ──▶ one error line, empty suite
///   write: lock file ▶ read ▶ (bad: moved to <suite>.plist.corrupt) ▶ change ▶ stage ▶ replace
///
/// Several processes may share a suite: writers take turns by a lock on
/// `<suite>.plist.lock`, readers see a whole file, the old or the new one.
///
/// Threading: any thread. A read costs one stat(2) while the file does not change.
/// Ownership: `files` and `log` outlive it.
class FileUserDefaults final : public UserDefaults {
 public:
  static constexpr std::string_view kFolder = "~/Library/Preferences";

  /// `lockPatience`: how long a write waits for one of another process.
  FileUserDefaults(FileManager& files, SystemLog& log,
                   std::chrono::milliseconds lockPatience = std::chrono::seconds(5))
      : files_(files), log_(log), lockPatience_(lockPatience) {}

  [[nodiscard]] std::optional<Value> objectIfReadable(std::string_view suite,
                                                      std::string_view key) const override;
  [[nodiscard]] size_t countOfKeys(std::string_view suite, std::string_view prefix) const override;
  [[nodiscard]] std::unique_ptr<StagedDefaults> stageObjects(
      std::string_view suite, std::vector<std::pair<std::string_view, Value>> objects) override;

 private:
  PropertyListFile& fileOfSuite(std::string_view suite) const REQUIRES(mutex_);
  /// Reads the suite, telling once of each new failure.
  const PropertyListFile::Content& contentOf(PropertyListFile& file) const REQUIRES(mutex_);
  [[nodiscard]] bool moveAside(const std::string& path) const;
  /// None after an error line.
  [[nodiscard]] std::unique_ptr<StagedFile> stage(const std::string& path, const Dictionary& content) const;

  FileManager& files_;
  SystemLog& log_;
  const std::chrono::milliseconds lockPatience_;
  mutable Mutex mutex_;
  mutable std::map<std::string, PropertyListFile, std::less<>> suites_ GUARDED_BY(mutex_);
};

}  // namespace zun
