#include "linux/dbus/ListeningSocket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <thread>

namespace zun {

namespace {

using Opened = Result<ListeningSocket, Error>;

Error errorOf(int number, const std::string& what) {
  return {kPOSIXErrorDomain, number, fmt::format("{}: {}", what, std::generic_category().message(number))};
}

/// D-Bus addresses escape bytes as %XX.
std::optional<std::string> unescaped(std::string_view text) {
  std::string plain;
  for (size_t index = 0; index < text.size(); ++index) {
    if (text[index] != '%') {
      plain += text[index];
      continue;
    }
    unsigned byte = 0;
    const std::string_view digits = text.substr(index + 1, 2);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2) return std::nullopt;
    plain += static_cast<char>(byte);
    index += 2;
  }
  return plain;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

FileDescriptor makeSocket() {
  return FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// Somebody listens there.
bool isAnswered(const sockaddr_un& address) {
  const FileDescriptor probe = makeSocket();
  if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
  return errno == EAGAIN || errno == EINPROGRESS;
}

/// Removes a socket file that nobody listens on. None when the path is free now.
std::optional<Error> clearStaleSocket(const std::string& path, const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return std::nullopt;
    return errorOf(errno, path);
  }
  if (!S_ISSOCK(status.st_mode)) return errorOf(EEXIST, fmt::format("{} is no socket", path));
  if (isAnswered(address)) return errorOf(EADDRINUSE, fmt::format("somebody else listens on {}", path));
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return errorOf(errno, path);
  return std::nullopt;
}

/// Two that start at once must not each take the other's fresh socket for a stale one.
/// Whoever holds the lock for long is none of us: then it goes without.
FileDescriptor lockFolder(const char* folder) {
  constexpr int kAttempts = 20;
  constexpr std::chrono::milliseconds kPause{50};
  FileDescriptor guard(::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int attempt = 0; guard.isOpen() && attempt < kAttempts; ++attempt) {
    if (::flock(guard.get(), LOCK_EX | LOCK_NB) == 0) break;
    std::this_thread::sleep_for(kPause);
  }
  return guard;
}

}  // namespace

Result<std::string, Error> pathOfDBusAddress(std::string_view address) {
  using Path = Result<std::string, Error>;
  const auto refuse = [address] {
    return Path::failure(
        {kPOSIXErrorDomain, EINVAL, fmt::format("'{}' is no address of the form unix:path=PATH", address)});
  };
  constexpr std::string_view kPrefix = "unix:path=";
  if (!address.starts_with(kPrefix)) return refuse();
  const std::string_view escaped = address.substr(kPrefix.size());
  auto path = unescaped(escaped.substr(0, escaped.find_first_of(",;")));
  if (!path || path->empty() || path->find('\0') != std::string::npos) return refuse();
  if (path->size() >= sizeof(sockaddr_un::sun_path)) {
    return Path::failure(errorOf(ENAMETOOLONG, *path));
  }
  return std::move(*path);
}

Result<ListeningSocket, Error> ListeningSocket::open(std::string_view address) {
  if (::sd_listen_fds(1) > 0) {
    FileDescriptor handedOver(SD_LISTEN_FDS_START);
    if (::sd_is_socket_unix(handedOver.get(), SOCK_STREAM, 1, nullptr, 0) <= 0) {
      return Opened::failure(errorOf(ENOTSOCK, "the service manager's descriptor is no listening socket"));
    }
    const int flags = ::fcntl(handedOver.get(), F_GETFL);
    if (flags < 0 || ::fcntl(handedOver.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
      return Opened::failure(errorOf(errno, "the service manager's socket"));
    }
    return ListeningSocket(std::move(handedOver));
  }
  const auto path = pathOfDBusAddress(address);
  if (!path) return Opened::failure(path.error());
  return bindTo(*path);
}

Result<ListeningSocket, Error> ListeningSocket::bindTo(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::error_code failure;
  if (!folder.empty()) std::filesystem::create_directories(folder, failure);
  if (failure) return Opened::failure(errorOf(failure.value(), folder.string()));
  const FileDescriptor guard = lockFolder(folder.empty() ? "." : folder.c_str());
  const sockaddr_un address = addressOf(path);
  if (auto error = clearStaleSocket(path, address)) return Opened::failure(std::move(*error));
  ListeningSocket socket(makeSocket());
  if (!socket.descriptor_.isOpen()) return Opened::failure(errorOf(errno, "socket"));
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return Opened::failure(errorOf(errno, path));
  }
  socket.path_ = path;
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) {
    socket.device_ = status.st_dev;
    socket.inode_ = status.st_ino;
  }
  // Everybody may connect: who is served, entitlements decide.
  if (::chmod(path.c_str(), 0666) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
    return Opened::failure(errorOf(errno, path));
  }
  return socket;
}

void ListeningSocket::close() {
  if (!descriptor_.isOpen()) return;
  descriptor_.reset();
  struct stat status {};
  const bool isOurs = !path_.empty() && ::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
                      status.st_ino == inode_;
  if (isOurs) ::unlink(path_.c_str());
}

}  // namespace zun
