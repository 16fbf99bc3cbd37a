#include "linux/service/PeerIdentity.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <string_view>

#include "linux/files/FileDescriptor.h"
#include "values/UTF8.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace zun {

namespace {

/// After a call that has failed. Any other error tells something of the peer, or of the kernel.
void noteShortage(int& shortage) {
  if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) shortage = errno;
}

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

/// When the process with this number started; 0 if there is none, or for a shortage.
uint64_t startOfProcess(pid_t process, int& shortage) {
  const FileDescriptor file(::open(fmt::format("/proc/{}/stat", process).c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 1024> text{};
  const ssize_t length = file.isOpen() ? ::read(file.get(), text.data(), text.size()) : -1;
  if (length < 0) noteShortage(shortage);
  if (length <= 0) return 0;
  std::string_view rest(text.data(), static_cast<size_t>(length));
  // The name of the program, the second field, may hold anything.
  rest.remove_prefix(std::min(rest.rfind(')') + 1, rest.size()));
  for (int field = 2; field < 22; ++field) rest.remove_prefix(std::min(rest.find(' ') + 1, rest.size()));
  uint64_t start = 0;
  std::from_chars(rest.data(), rest.data() + rest.size(), start);
  return start;
}

std::optional<PeerProgram> programOfProcess(pid_t process, int& shortage) {
  PeerProgram program;
  program.processStart = startOfProcess(process, shortage);
  if (program.processStart == 0) return std::nullopt;
  const std::string link = fmt::format("/proc/{}/exe", process);
  struct stat status {};
  std::array<char, PATH_MAX> path{};
  const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
  // The link leads to the file itself, whatever its path names by now.
  if (length <= 0 || ::stat(link.c_str(), &status) != 0) {
    noteShortage(shortage);
    return std::nullopt;
  }
  program.path.assign(path.data(), static_cast<size_t>(length));
  program.device = status.st_dev;
  program.inode = status.st_ino;
  program.isDeleted = status.st_nlink == 0;
  // Had the process ended, its number might by now be another's.
  if (startOfProcess(process, shortage) != program.processStart) return std::nullopt;
  return program;
}

std::vector<gid_t> supplementaryGroupsOfPeer(int socket, int& shortage) {
  std::vector<gid_t> groups(32);
  auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  int outcome = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
  if (outcome != 0 && errno == ERANGE) {
    groups.resize(length / sizeof(gid_t));
    outcome = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
  }
  if (outcome != 0) {
    noteShortage(shortage);
    return {};
  }
  groups.resize(length / sizeof(gid_t));
  return groups;
}

}  // namespace

std::string PeerIdentity::description() const {
  const std::string path = program ? replacingInvalidUTF8(program->path) : "unknown executable";
  return fmt::format("pid {}, user {}, {}", process, user, path);
}

std::optional<PeerIdentity> readPeerCredentials(int socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
  PeerIdentity peer;
  peer.process = credentials.pid;
  peer.user = credentials.uid;
  peer.group = credentials.gid;
  peer.supplementaryGroups = supplementaryGroupsOfPeer(socket, peer.shortage);
  return peer;
}

std::optional<PeerIdentity> readPeerIdentity(int socket) {
  auto peer = readPeerCredentials(socket);
  if (!peer) return std::nullopt;
  const FileDescriptor process = peerProcessDescriptor(socket);
  peer->program = programOfProcess(peer->process, peer->shortage);
  if (process.isOpen() && hasEnded(process)) peer->program.reset();
  return peer;
}

}  // namespace zun
