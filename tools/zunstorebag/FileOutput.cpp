#include "FileOutput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "linux/files/FileDescriptor.h"

namespace zun {

namespace {

bool writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

unsigned processUmask() {
  const mode_t mask = ::umask(077);
  ::umask(mask);
  return mask;
}

/// Where what is written to `path` goes: links are followed, one that leads to nothing too.
/// None, with errno set, for links without an end.
std::optional<std::string> targetOf(const std::string& path) {
  constexpr int kMaximumLinks = 40;  // the system's own
  std::filesystem::path target = path;
  std::error_code error;
  for (int links = 0; std::filesystem::is_symlink(target, error); ++links) {
    if (links == kMaximumLinks) {
      errno = ELOOP;
      return std::nullopt;
    }
    target = target.parent_path() / std::filesystem::read_symlink(target, error);
  }
  return target;
}

/// True for a device, a pipe and the like: to be written to, not to be replaced.
bool isNoRegularFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

/// False with errno set.
bool writeInPlace(const std::string& path, std::string_view bytes) {
  const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
  return file.isOpen() && writeAll(file.get(), bytes);
}

/// False with errno set; what is there is left as it is then.
bool writeThroughTemporary(const std::string& path, std::string_view bytes, unsigned mode,
                           Overwrite overwrite) {
  std::string temporary = path + ".XXXXXX";
  const FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.isOpen()) return false;
  bool isDone = ::fchmod(file.get(), mode & ~processUmask()) == 0 && writeAll(file.get(), bytes) &&
                ::fsync(file.get()) == 0;
  if (isDone && overwrite == Overwrite::kReplace) {
    isDone = ::rename(temporary.c_str(), path.c_str()) == 0;
    if (isDone) return true;
  } else if (isDone) {
    isDone = ::link(temporary.c_str(), path.c_str()) == 0;
  }
  const int failure = errno;
  ::unlink(temporary.c_str());
  errno = failure;
  return isDone;
}

}  // namespace

std::optional<std::string> writeWholeFile(const std::string& path, std::string_view bytes, unsigned mode,
                                          Overwrite overwrite) {
  bool isDone = false;
  if (overwrite == Overwrite::kRefuse) {
    isDone = writeThroughTemporary(path, bytes, mode, overwrite);
  } else if (const auto target = targetOf(path)) {
    isDone = isNoRegularFile(*target) ? writeInPlace(*target, bytes)
                                      : writeThroughTemporary(*target, bytes, mode, overwrite);
  }
  if (isDone) return std::nullopt;
  return fmt::format("cannot write {}: {}", path, std::strerror(errno));
}

}  // namespace zun
