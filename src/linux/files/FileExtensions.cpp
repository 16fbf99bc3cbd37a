#include "linux/files/FileExtensions.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>
#include <utility>

#include "linux/files/PosixError.h"
#include "values/Check.h"

namespace zun {

namespace {

/// 128 random bits as hexadecimal digits.
std::string makeToken() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::array<uint8_t, 16> bytes{};
  ssize_t got = 0;
  do {
    got = ::getrandom(bytes.data(), bytes.size(), 0);
  } while (got < 0 && errno == EINTR);
  ZUN_CHECK(got == static_cast<ssize_t>(bytes.size()));  // so few bytes come whole or not at all
  std::string token;
  for (const uint8_t byte : bytes) {
    token += kDigits[byte >> 4];
    token += kDigits[byte & 0xF];
  }
  return token;
}

/// A descriptor that only names a file (O_PATH) proves no right to read it.
bool isOpenForReading(int descriptor) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  if (flags < 0 || (flags & O_PATH) != 0) return false;
  const int access = flags & O_ACCMODE;
  return access == O_RDONLY || access == O_RDWR;
}

/// True for the kernel's own windows that look like files: some decide at each read, by
/// who reads, what they show; others wait for something to happen.
bool isOfKernelFileSystem(int descriptor) {
  constexpr uint32_t kMagics[] = {
      PROC_SUPER_MAGIC, SYSFS_MAGIC,    DEBUGFS_MAGIC,      TRACEFS_MAGIC,       SECURITYFS_MAGIC,
      SELINUX_MAGIC,    SMACK_MAGIC,    CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, BPF_FS_MAGIC,
      PSTOREFS_MAGIC,   EFIVARFS_MAGIC, BINFMTFS_MAGIC,     NSFS_MAGIC,          RDTGROUP_SUPER_MAGIC,
  };
  struct statfs system {};
  if (::fstatfs(descriptor, &system) != 0) return true;
  return std::find(std::begin(kMagics), std::end(kMagics), static_cast<uint32_t>(system.f_type)) !=
         std::end(kMagics);
}

/// A file's place: what is looked up, and in which folder.
struct Place {
  FileDescriptor folder;
  std::string name;
};

bool namesNothing(std::string_view name) {
  return name.empty() || name == "." || name == "..";
}

/// A folder, only to look into. Links that lead to what this process has open are not
/// followed: they pass by the folders above.
FileDescriptor openFolder(const std::string& path) {
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_MAGICLINKS;
  const long opened = ::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
  // An older kernel, or a sandbox that does not know the call.
  const bool isUnknown = opened < 0 && (errno == ENOSYS || errno == EPERM);
  if (!isUnknown) return FileDescriptor(static_cast<int>(opened));
  return FileDescriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

Result<Place, Error> findPlace(const std::string& path) {
  using Found = Result<Place, Error>;
  if (path.size() >= PATH_MAX) return Found::failure(posixError(ENAMETOOLONG));
  if (!path.starts_with('/') || path.find('\0') != std::string::npos) {
    return Found::failure(posixError(EINVAL));
  }
  const size_t slash = path.rfind('/');
  Place place;
  place.name = path.substr(slash + 1);
  if (namesNothing(place.name)) return Found::failure(posixError(EINVAL));
  place.folder = openFolder(slash == 0 ? "/" : path.substr(0, slash));
  if (!place.folder.isOpen()) return Found::failure(posixError(errno));
  return place;
}

/// None when the place holds the file that `file` is, no link to it; else why not.
std::optional<Error> mismatch(const Place& place, const struct stat& file) {
  struct stat there {};
  if (::fstatat(place.folder.get(), place.name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
    return posixError(errno);
  }
  if (S_ISLNK(there.st_mode)) return Error{kPOSIXErrorDomain, ELOOP, "The path is a symbolic link"};
  if (there.st_dev == file.st_dev && there.st_ino == file.st_ino) return std::nullopt;
  return Error{kPOSIXErrorDomain, ESTALE, "The path names another file than the one handed over"};
}

/// One client's file, through the client's descriptor.
class FileExtension final : public SandboxExtension {
 public:
  FileExtension(std::shared_ptr<FileDescriptor> descriptor, const struct stat& file, Place place,
                FileSystemIdentity client)
      : descriptor_(std::move(descriptor)),
        file_(file),
        isRegularFile_(S_ISREG(file.st_mode) && !isOfKernelFileSystem(descriptor_->get())),
        place_(std::move(place)),
        client_(std::move(client)) {}

  bool isRegularFile() const override { return isRegularFile_; }

  uint64_t size() const override {
    struct stat now {};
    if (!isRegularFile_ || ::fstat(descriptor_->get(), &now) != 0) return 0;
    return static_cast<uint64_t>(now.st_size);
  }

  Result<size_t, Error> read(uint64_t offset, std::span<char> buffer) const override {
    using Read = Result<size_t, Error>;
    if (!isRegularFile_ || offset > uint64_t{std::numeric_limits<off_t>::max()}) {
      return Read::failure(posixError(EINVAL));
    }
    ssize_t count = 0;
    do {
      count = ::pread(descriptor_->get(), buffer.data(), buffer.size(), static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    if (count < 0) return Read::failure(posixError(errno));
    return static_cast<size_t>(count);
  }

  std::optional<Error> removeFile() override {
    if (!isRegularFile_) return posixError(EINVAL);
    const auto identity = AssumedFileSystemIdentity::assume(client_);
    if (!identity) return identity.error();
    if (const auto error = mismatch(place_, file_)) return error;
    if (::unlinkat(place_.folder.get(), place_.name.c_str(), 0) != 0) return posixError(errno);
    return std::nullopt;
  }

 private:
  const std::shared_ptr<FileDescriptor> descriptor_;
  const struct stat file_;
  const bool isRegularFile_;
  const Place place_;
  const FileSystemIdentity client_;
};

}  // namespace

Result<std::string, FileExtensions::Refusal> FileExtensions::issue(FileDescriptor file) {
  using Issued = Result<std::string, Refusal>;
  if (!isOpenForReading(file.get())) return Issued::failure(Refusal::kNotReadable);
  // Declared before the lock: what is refused is closed after it, for closing may block.
  auto descriptor = std::make_shared<FileDescriptor>(std::move(file));
  std::string token = makeToken();
  const MutexLock lock(mutex_);
  if (hasEnded_) return Issued::failure(Refusal::kEnded);
  if (unused_.size() >= kMaximumUnused) return Issued::failure(Refusal::kTooMany);
  unused_.emplace(token, std::move(descriptor));
  return token;
}

Result<std::unique_ptr<SandboxExtension>, Error> FileExtensions::consume(std::string_view token,
                                                                         const std::string& path) {
  using Consumed = Result<std::unique_ptr<SandboxExtension>, Error>;
  const auto unknown = [] {
    return Consumed::failure({kPOSIXErrorDomain, EACCES, "The connection has no such token"});
  };
  if (token.ends_with('\0')) token.remove_suffix(1);
  std::shared_ptr<FileDescriptor> descriptor;
  {
    const MutexLock lock(mutex_);
    const auto found = unused_.find(token);
    if (found == unused_.end()) return unknown();
    descriptor = found->second;
  }
  struct stat file {};
  if (::fstat(descriptor->get(), &file) != 0) return Consumed::failure(posixError(errno));
  auto place = [&] {
    // Where that cannot be, with this process's rights, for reading alone: nothing is
    // removed then.
    const auto identity = AssumedFileSystemIdentity::assume(client_);
    auto found = findPlace(path);
    if (!found) return found;
    if (const auto error = mismatch(*found, file)) return Result<Place, Error>::failure(*error);
    return found;
  }();
  if (!place) return Consumed::failure(place.error());
  {
    const MutexLock lock(mutex_);
    // It may have been used meanwhile, or the connection may have ended.
    const auto found = unused_.find(token);
    if (found == unused_.end()) return unknown();
    unused_.erase(found);
  }
  return Consumed(std::make_unique<FileExtension>(std::move(descriptor), file, std::move(*place), client_));
}

void FileExtensions::invalidate() {
  decltype(unused_) unused;
  const MutexLock lock(mutex_);
  hasEnded_ = true;
  unused.swap(unused_);
}

}  // namespace zun
