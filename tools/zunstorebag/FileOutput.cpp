#include "FileOutput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
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

/// True for an open file's name, as /proc/self/fd/1: the system alone can follow its link.
bool isNameOfOpenFile(const std::filesystem::path& path) {
  struct statfs status {};
  return ::statfs(path.parent_path().c_str(), &status) == 0 && status.f_type == PROC_SUPER_MAGIC;
}

/// The descriptor of this process that `path` names.
std::optional<int> descriptorOf(const std::filesystem::path& path) {
  std::error_code error;
  const std::string name = path.filename();
  int descriptor = -1;
  const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), descriptor);
  if (failure != std::errc() || end != name.data() + name.size()) return std::nullopt;
  const bool isOurs = std::filesystem::equivalent(path.parent_path(), "/proc/self/fd", error);
  return isOurs ? std::optional(descriptor) : std::nullopt;
}

/// Where what is written to `path` goes: links are followed, one that leads to nothing too,
/// up to the name of an open file. None, with errno set, for links without an end.
std::optional<std::string> targetOf(const std::string& path) {
  constexpr int kMaximumLinks = 40;  // the system's own
  std::filesystem::path target = path;
  std::error_code error;
  for (int links = 0; std::filesystem::is_symlink(target, error) && !isNameOfOpenFile(target); ++links) {
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

/// False with errno set. A descriptor of ours is written to itself: others go on where it ends.
bool writeInPlace(const std::string& path, std::string_view bytes) {
  if (const auto descriptor = descriptorOf(path)) return writeAll(*descriptor, bytes);
  const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY));
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
    isDone = isNameOfOpenFile(*target) || isNoRegularFile(*target)
                 ? writeInPlace(*target, bytes)
                 : writeThroughTemporary(*target, bytes, mode, overwrite);
  }
  if (isDone) return std::nullopt;
  return fmt::format("cannot write {}: {}", path, std::strerror(errno));
}

}  // namespace zun
