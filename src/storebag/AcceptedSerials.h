#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/Mutex.h"
#include "platform/UserDefaults.h"
#include "values/Result.h"

namespace zun {

/// The highest serial that was accepted of each storebag name: nothing older is taken.
///
///   accepted ──note──▶ counts in this process ──keep──▶ in the user defaults, for the next
///
/// Threading: any thread. Ownership: part of a fetcher; the defaults outlive it.
class AcceptedSerials final {
 public:
  enum class Unknown { kUnreadable };  // the user defaults, just now
  using Serial = Result<std::optional<int64_t>, Unknown>;

  explicit AcceptedSerials(UserDefaults& defaults) : defaults_(defaults) {}

  /// None where the name never had one.
  [[nodiscard]] Serial of(std::string_view name) const EXCLUDES(mutex_);
  /// Waits for nothing. A lower one than is known changes nothing.
  void note(std::string_view name, int64_t serial) EXCLUDES(mutex_);
  /// Writes what was noted since, or could not be written before. Only then it waits, for
  /// other writers of the user defaults and for the disk.
  void keep(std::string_view name) EXCLUDES(mutex_, keeping_);

 private:
  [[nodiscard]] Serial highest(std::string_view name) const REQUIRES(mutex_);
  /// Whether it is there now.
  [[nodiscard]] bool write(std::string_view name) EXCLUDES(mutex_) REQUIRES(keeping_);

  UserDefaults& defaults_;
  Mutex keeping_;  // whoever writes; taken first
  mutable Mutex mutex_;
  std::map<std::string, int64_t, std::less<>> noted_ GUARDED_BY(mutex_);
  std::set<std::string, std::less<>> toBeKept_ GUARDED_BY(mutex_);
};

}  // namespace zun
