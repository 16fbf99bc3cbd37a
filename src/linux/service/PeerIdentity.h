#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "linux/files/FileSystemIdentity.h"

namespace zun {

/// What a process runs. The path is for logs alone: in another mount namespace it may be
/// any file's.
struct PeerProgram {
  dev_t device = 0;
  ino_t inode = 0;
  uint64_t processStart = 0;  // clock ticks since the machine started
  std::string path;
  bool isDeleted = false;  // from its last folder: most often replaced by an update

  /// The same process still runs the same file.
  [[nodiscard]] bool isStill(const PeerProgram& before) const {
    return device == before.device && inode == before.inode && processStart == before.processStart;
  }
};

/// Who is at the other end of a socket, as the kernel tells: nothing a client says
/// about itself is in here.
struct PeerIdentity {
  pid_t process = 0;
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> supplementaryGroups;
  std::optional<PeerProgram> program;  // none where it cannot be told for certain
  /// What the machine was short of, an errno, when groups or program could not be read: it may have
  /// more of them than stands here. 0 where nothing was wanting.
  int shortage = 0;

  /// One line for logs.
  [[nodiscard]] std::string description() const;

  [[nodiscard]] FileSystemIdentity fileSystemIdentity() const { return {user, group, supplementaryGroups}; }
};

/// Process, user and groups of a connected Unix socket's peer and nothing else, at little
/// cost; none when the kernel has none.
[[nodiscard]] std::optional<PeerIdentity> readPeerCredentials(int socket);

/// Reads the identity of a connected Unix socket's peer; none when the kernel has none.
[[nodiscard]] std::optional<PeerIdentity> readPeerIdentity(int socket);

}  // namespace zun
