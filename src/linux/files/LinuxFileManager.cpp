#include "linux/files/LinuxFileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>

#include "linux/files/FileDescriptor.h"
#include "linux/files/PosixError.h"
#include "platform/TemporaryFiles.h"

namespace zun {

namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;

std::string withoutTrailingSlashes(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  return std::string(path);
}

/// 0, or the errno of the write that failed.
int writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

/// Closing tells what a delayed write met (quota, network file systems).
int closeFile(FileDescriptor& file) {
  return ::close(file.release()) == 0 || errno == EINTR ? 0 : errno;
}

/// 0, or the errno of the write or close that failed.
int writeAndClose(FileDescriptor& file, std::string_view bytes) {
  const int failure = writeAll(file.get(), bytes);
  return failure == 0 ? closeFile(file) : failure;
}

bool hasUnendedLine(int file, off_t size) {
  char last = '\n';
  return size > 0 && ::pread(file, &last, 1, size - 1) == 1 && last != '\n';
}

class OpenAppendedFile final : public AppendedFile {
 public:
  explicit OpenAppendedFile(FileDescriptor file) : file_(std::move(file)) {}

  std::optional<Error> append(std::string_view lines) override {
    struct stat before {};
    if (::fstat(file_.get(), &before) != 0) return posixError(errno);
    // Who was killed while it wrote has left the beginning of a line.
    int failure = hasUnendedLine(file_.get(), before.st_size) ? writeAll(file_.get(), "\n") : 0;
    if (failure == 0) failure = writeAll(file_.get(), lines);
    if (failure == 0) return std::nullopt;
    static_cast<void>(::ftruncate(file_.get(), before.st_size));  // what a full disk took of it
    return posixError(failure);
  }

  std::optional<uint64_t> size() const override {
    struct stat now {};
    if (::fstat(file_.get(), &now) != 0 || now.st_nlink == 0) return std::nullopt;
    return static_cast<uint64_t>(now.st_size);
  }

 private:
  const FileDescriptor file_;
};

/// A path without a NUL: the system would read a shorter one.
bool isUsable(const std::string& path) {
  return path.find('\0') == std::string::npos;
}

/// Reads to the end of the file; an errno where that fails or exceeds `maximumBytes`.
int readToEnd(int descriptor, uint64_t sizeHint, uint64_t maximumBytes, std::string& out) {
  constexpr uint64_t kSmallestRead = 4096;  // files of /proc and /sys tell no size
  uint64_t used = 0;
  out.resize(std::min(sizeHint, maximumBytes) + 1);
  while (true) {
    if (used == out.size()) {
      if (used > maximumBytes) return EFBIG;
      out.resize(std::min(std::max(used * 2, kSmallestRead), maximumBytes + 1));
    }
    const ssize_t count = ::read(descriptor, out.data() + used, out.size() - used);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) break;
    used += static_cast<uint64_t>(count);
  }
  if (used > maximumBytes) return EFBIG;
  out.resize(used);
  return 0;
}

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

struct Name {
  std::string name;
  bool isFolder = false;
};

/// Sorted entries of a folder. `flags` are added to those of open(2).
int readNames(const std::string& path, int flags, std::vector<Name>& names) {
  FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK | flags));
  if (!folder.isOpen()) return errno;
  const Directory directory(::fdopendir(folder.get()));
  if (directory == nullptr) return errno;
  static_cast<void>(folder.release());  // closed with the directory
  while (true) {
    errno = 0;
    const dirent* const entry = ::readdir(directory.get());
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    bool isFolder = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat status {};
      isFolder = ::fstatat(::dirfd(directory.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                 S_ISDIR(status.st_mode);
    }
    names.push_back({std::string(name), isFolder});
  }
  const int failure = errno;
  std::sort(names.begin(), names.end(),
            [](const Name& left, const Name& right) { return left.name < right.name; });
  return failure;
}

void enumerate(const std::string& folder, const std::string& prefix, std::vector<std::string>& out) {
  std::vector<Name> names;
  // Paths longer than the system takes end the descent.
  if (readNames(folder, prefix.empty() ? 0 : O_NOFOLLOW, names) != 0 && names.empty()) return;
  for (const Name& entry : names) {
    out.push_back(prefix + entry.name);
    if (entry.isFolder) enumerate(folder + '/' + entry.name, prefix + entry.name + '/', out);
  }
}

class TemporaryFile final : public StagedFile {
 public:
  /// `folderToSync`: empty for none.
  TemporaryFile(std::string temporary, std::string path, std::string folderToSync)
      : temporary_(std::move(temporary)), path_(std::move(path)), folderToSync_(std::move(folderToSync)) {}
  ~TemporaryFile() override {
    if (!isPublished_) {
      ::unlink(temporary_.c_str());
    } else if (!folderToSync_.empty()) {
      // The new name is in place already; a folder that cannot be synced is no failure.
      const FileDescriptor folder(::open(folderToSync_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (folder.isOpen()) static_cast<void>(::fsync(folder.get()));
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  std::optional<Error> publish() override {
    if (::rename(temporary_.c_str(), path_.c_str()) != 0) return posixError(errno);
    isPublished_ = true;
    return std::nullopt;
  }

 private:
  const std::string temporary_;
  const std::string path_;
  const std::string folderToSync_;
  bool isPublished_ = false;
};

Date dateOf(const statx_timestamp& time) {
  return {static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9};
}

}  // namespace

LinuxFileManager::LinuxFileManager(std::string_view root, std::string_view home)
    : root_(withoutTrailingSlashes(root)), home_(withoutTrailingSlashes(home)) {}

std::string LinuxFileManager::resolve(std::string_view path) const {
  if (path == "~" || path.starts_with("~/")) {
    const std::string resolved = root_ + home_ + std::string(path.substr(1));
    return resolved.empty() ? "/" : resolved;
  }
  return path.starts_with('/') ? root_ + std::string(path) : std::string(path);
}

Result<std::string, Error> LinuxFileManager::readFile(const std::string& path, uint64_t maximumBytes) const {
  using Outcome = Result<std::string, Error>;
  if (!isUsable(path)) return Outcome::failure(posixError(EINVAL));
  // Non-blocking: opening a pipe that nobody writes to must not wait.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.isOpen()) return Outcome::failure(posixError(errno));
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return Outcome::failure(posixError(errno));
  if (!S_ISREG(status.st_mode)) {
    return Outcome::failure(posixError(S_ISDIR(status.st_mode) ? EISDIR : EINVAL));
  }
  const auto size = static_cast<uint64_t>(std::max<off_t>(status.st_size, 0));
  if (size > maximumBytes) return Outcome::failure(posixError(EFBIG));
  try {
    std::string bytes;
    if (const int failure = readToEnd(file.get(), size, maximumBytes, bytes); failure != 0) {
      return Outcome::failure(posixError(failure));
    }
    return bytes;
  } catch (const std::exception&) {  // no memory for it
    return Outcome::failure(posixError(ENOMEM));
  }
}

std::optional<Error> LinuxFileManager::writeFileAtomically(const std::string& path, std::string_view bytes,
                                                           Durability durability) {
  const auto staged = stageFile(path, bytes, durability);
  return staged ? (*staged)->publish() : staged.error();
}

Result<std::unique_ptr<StagedFile>, Error> LinuxFileManager::stageFile(const std::string& path,
                                                                       std::string_view bytes,
                                                                       Durability durability) {
  using Outcome = Result<std::unique_ptr<StagedFile>, Error>;
  if (!isUsable(path)) return Outcome::failure(posixError(EINVAL));
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  std::string temporary = fmt::format("{}/{}", folder, kTemporaryFileName);
  FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
  if (!file.isOpen()) return Outcome::failure(posixError(errno));
  std::unique_ptr<StagedFile> staged = std::make_unique<TemporaryFile>(
      temporary, path, durability == Durability::kSynced ? folder : std::string());

  struct stat former {};
  int failure = 0;
  if (::lstat(path.c_str(), &former) == 0 && S_ISREG(former.st_mode)) {
    if (::fchmod(file.get(), former.st_mode & 0777) != 0) failure = errno;
  }
  if (failure == 0) failure = writeAll(file.get(), bytes);
  if (failure == 0 && durability == Durability::kSynced && ::fsync(file.get()) != 0) failure = errno;
  if (failure == 0) failure = closeFile(file);
  if (failure != 0) return Outcome::failure(posixError(failure));
  return staged;
}

std::optional<Error> LinuxFileManager::createFile(const std::string& path, std::string_view bytes) {
  if (!isUsable(path)) return posixError(EINVAL);
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode));
  if (!file.isOpen()) return posixError(errno);
  const int failure = writeAndClose(file, bytes);
  if (failure == 0) return std::nullopt;
  ::unlink(path.c_str());  // what a full disk took of it
  return posixError(failure);
}

Result<std::unique_ptr<AppendedFile>, Error> LinuxFileManager::openForAppending(const std::string& path) {
  using Opened = Result<std::unique_ptr<AppendedFile>, Error>;
  if (!isUsable(path)) return Opened::failure(posixError(EINVAL));
  FileDescriptor file(::open(
      path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, kFileMode));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0) return Opened::failure(posixError(errno));
  if (!S_ISREG(status.st_mode)) return Opened::failure(posixError(EINVAL));
  return std::unique_ptr<AppendedFile>(std::make_unique<OpenAppendedFile>(std::move(file)));
}

std::optional<Error> LinuxFileManager::createDirectories(const std::string& path) {
  if (path.empty() || !isUsable(path)) return posixError(EINVAL);
  size_t end = 0;
  do {
    end = path.find('/', end + 1);
    const std::string folder = path.substr(0, end);
    if (::mkdir(folder.c_str(), kFolderMode) == 0 || errno == EEXIST) continue;
    // A folder above may be one that we may not write to, or is read-only: what
    // counts is that it is there.
    const int failure = errno;
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0) return posixError(failure);
  } while (end != std::string::npos);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return posixError(errno);
  return S_ISDIR(status.st_mode) ? std::nullopt : std::optional(posixError(ENOTDIR));
}

std::optional<Error> LinuxFileManager::removeItem(const std::string& path) {
  if (!isUsable(path)) return posixError(EINVAL);
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return posixError(errno);
  if (!S_ISDIR(status.st_mode)) {
    return ::unlink(path.c_str()) == 0 ? std::nullopt : std::optional(posixError(errno));
  }
  try {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    return error ? std::optional(posixError(error.value())) : std::nullopt;
  } catch (const std::exception&) {
    return posixError(ENOMEM);
  }
}

std::optional<Error> LinuxFileManager::allowOwnerAccess(const std::string& path) {
  if (!isUsable(path)) return posixError(EINVAL);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return posixError(errno);
  const mode_t wanted = S_ISDIR(status.st_mode) ? S_IRWXU : S_IRUSR | S_IWUSR;
  const mode_t mode = (status.st_mode & 07777) | wanted;
  if (mode == (status.st_mode & 07777) || ::chmod(path.c_str(), mode) == 0) return std::nullopt;
  return posixError(errno);
}

std::optional<Error> LinuxFileManager::setModificationDate(const std::string& path, Date date) {
  if (!isUsable(path)) return posixError(EINVAL);
  const auto microseconds = std::llround(date.secondsSince1970 * 1e6);
  const timespec times[2] = {
      {.tv_sec = 0, .tv_nsec = UTIME_OMIT},
      {.tv_sec = microseconds / 1'000'000, .tv_nsec = microseconds % 1'000'000 * 1000},
  };
  if (::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0) return std::nullopt;
  return posixError(errno);
}

Result<std::vector<std::string>, Error> LinuxFileManager::listDirectory(const std::string& path) const {
  using Outcome = Result<std::vector<std::string>, Error>;
  if (!isUsable(path)) return Outcome::failure(posixError(EINVAL));
  std::vector<Name> entries;
  if (const int failure = readNames(path, 0, entries); failure != 0) {
    return Outcome::failure(posixError(failure));
  }
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (Name& entry : entries) names.push_back(std::move(entry.name));
  return names;
}

std::vector<std::string> LinuxFileManager::enumerateRecursively(const std::string& path) const {
  std::vector<std::string> paths;
  if (isUsable(path)) enumerate(path, "", paths);
  return paths;
}

std::optional<FileAttributes> LinuxFileManager::attributes(const std::string& path, Links links) const {
  const int flags = AT_NO_AUTOMOUNT | (links == Links::kFollowed ? 0 : AT_SYMLINK_NOFOLLOW);
  struct statx status {};
  if (!isUsable(path) ||
      ::statx(AT_FDCWD, path.c_str(), flags, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
    return std::nullopt;
  }
  FileAttributes attributes;
  attributes.size = status.stx_size;
  attributes.modificationDate = dateOf(status.stx_mtime);
  const bool hasBirthTime = (status.stx_mask & STATX_BTIME) != 0;
  attributes.creationDate = hasBirthTime ? dateOf(status.stx_btime) : attributes.modificationDate;
  attributes.isDirectory = S_ISDIR(status.stx_mode);
  attributes.isRegularFile = S_ISREG(status.stx_mode);
  attributes.isOwn = status.stx_uid == ::geteuid();
  return attributes;
}

}  // namespace zun
