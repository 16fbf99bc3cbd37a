#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "platform/FileManager.h"
#include "values/Value.h"

namespace zun {

/// A property list on disk whose outermost value is a dictionary. Kept in memory for
/// as long as the file stays the same one.
///
/// Threading: one thread at a time. Ownership: `files` outlives it.
class PropertyListFile final {
 public:
  enum class State {
    kMissing,  // no such file: an empty dictionary
    kGood,
    kBad,         // there, but not for us: garbage, too large, no regular file, no permission
    kUnreadable,  // nothing is known of its content: no descriptors left, a disk error
  };

  struct Content {
    State state = State::kMissing;
    Dictionary dictionary;  // empty unless good
    std::string failure;    // why it is bad or unreadable
  };

  PropertyListFile(const FileManager& files, std::string path) : files_(files), path_(std::move(path)) {}

  [[nodiscard]] const std::string& path() const { return path_; }

  /// What the file holds now. `isNewFailure` (may be null) tells whether the content
  /// is bad or unreadable in another way, or another file, than at the last call.
  const Content& read(bool* isNewFailure = nullptr);

 private:
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modified = 0;  // nanoseconds since 1970
    int64_t changed = 0;
    int statError = 0;
    friend bool operator==(const Identity&, const Identity&) = default;
  };

  static Identity identityOf(const std::string& path);
  static bool isSettled(const Identity& identity);
  Content load() const;

  const FileManager& files_;
  const std::string path_;
  Identity identity_{.statError = -1};
  bool isTrusted_ = false;
  Content content_;
};

}  // namespace zun
