#include "linux/service/PeerIdentity.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

#include "linux/files/FileDescriptor.h"
#include "values/UTF8.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace zun {

namespace {

FileDescriptor peerProcessDescriptor(int socket) {
  int descriptor = -1;
  socklen_t length = sizeof descriptor;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &length) != 0) return {};
  return FileDescriptor(descriptor);
}

bool hasEnded(const FileDescriptor& process) {
  pollfd ended{process.get(), POLLIN, 0};
  return ::poll(&ended, 1, 0) != 0;
}

std::string executableOfProcess(pid_t process) {
  std::array<char, PATH_MAX> path{};
  const std::string link = fmt::format("/proc/{}/exe", process);
  const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
  if (length <= 0 || static_cast<size_t>(length) == path.size()) return {};
  return {path.data(), static_cast<size_t>(length)};
}

std::vector<gid_t> supplementaryGroupsOfPeer(int socket) {
  std::vector<gid_t> groups(32);
  auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) {
    if (errno != ERANGE) return {};
    groups.resize(length / sizeof(gid_t));
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) return {};
  }
  groups.resize(length / sizeof(gid_t));
  return groups;
}

}  // namespace

std::string PeerIdentity::description() const {
  const std::string path = executable.empty() ? "unknown executable" : replacingInvalidUTF8(executable);
  return fmt::format("pid {}, user {}, {}", process, user, path);
}

std::optional<PeerIdentity> readPeerIdentity(int socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
  PeerIdentity peer;
  peer.process = credentials.pid;
  peer.user = credentials.uid;
  peer.group = credentials.gid;
  peer.supplementaryGroups = supplementaryGroupsOfPeer(socket);
  const FileDescriptor process = peerProcessDescriptor(socket);
  peer.executable = executableOfProcess(peer.process);
  // Had the process ended, its number might by now be another's.
  if (process.isOpen() && hasEnded(process)) peer.executable.clear();
  return peer;
}

}  // namespace zun
