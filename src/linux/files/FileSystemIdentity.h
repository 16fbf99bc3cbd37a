#pragma once

#include <sys/types.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "values/Error.h"
#include "values/Result.h"

namespace zun {

/// Whose rights decide about access to files.
struct FileSystemIdentity {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> supplementaryGroups;

  /// This process's own.
  [[nodiscard]] static FileSystemIdentity ofProcess();
};

/// Lends the calling thread, and no other, somebody else's rights to files.
///
///   assume ─▶ every look-up and change of a file is decided by that identity ─▶ end: as before
///
/// While it lives the thread has no capability that overrides the rights to files either,
/// unless the identity is root's. Not for threads that do anything but work on files meanwhile.
///
/// Threading: begins and ends on one thread.
class AssumedFileSystemIdentity final {
 public:
  /// Fails (kPOSIXErrorDomain) when the process may not act as somebody else, as root may.
  /// Without that it acts only for its own user, and only for those who have all of its groups.
  static Result<AssumedFileSystemIdentity, Error> assume(const FileSystemIdentity& identity);

  AssumedFileSystemIdentity(AssumedFileSystemIdentity&& other) noexcept
      : own_(std::move(other.own_)),
        ownCapabilities_(other.ownCapabilities_),
        isInForce_(std::exchange(other.isInForce_, false)) {}
  AssumedFileSystemIdentity& operator=(AssumedFileSystemIdentity&&) = delete;
  /// A thread that cannot become itself again must not go on: ends the process.
  ~AssumedFileSystemIdentity();

 private:
  AssumedFileSystemIdentity(FileSystemIdentity own, uint64_t capabilities)
      : own_(std::move(own)), ownCapabilities_(capabilities) {}

  FileSystemIdentity own_;
  uint64_t ownCapabilities_;
  bool isInForce_ = true;
};

}  // namespace zun
