#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "linux/files/FileSystemIdentity.h"

namespace zun {

/// Who is at the other end of a socket, as the kernel tells: nothing a client says
/// about itself is in here.
struct PeerIdentity {
  pid_t process = 0;
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> supplementaryGroups;
  std::string executable;  // empty where it cannot be told for certain

  /// One line for logs.
  [[nodiscard]] std::string description() const;

  [[nodiscard]] FileSystemIdentity fileSystemIdentity() const { return {user, group, supplementaryGroups}; }
};

/// Reads the identity of a connected Unix socket's peer; none when the kernel has none.
[[nodiscard]] std::optional<PeerIdentity> readPeerIdentity(int socket);

}  // namespace zun
