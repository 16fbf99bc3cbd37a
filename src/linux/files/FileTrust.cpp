#include "linux/files/FileTrust.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

namespace zun {

namespace {

using OpenedFile = Result<FileDescriptor, std::string>;

OpenedFile failure(const std::string& path, std::string_view reason) {
  return OpenedFile::failure(fmt::format("{}: {}", path, reason));
}

OpenedFile systemFailure(const std::string& path) {
  return failure(path, std::generic_category().message(errno));
}

/// Null if the file may stay open.
const char* reasonAgainstFile(const struct stat& status) {
  if (S_ISLNK(status.st_mode)) return "it is a symbolic link";
  if (!S_ISREG(status.st_mode)) return "it is no regular file";
  return reasonToDistrust(status);
}

const char* reasonAgainstFolder(struct stat status, bool holdsFile) {
  if (S_ISLNK(status.st_mode)) return "it is a symbolic link";
  if (!S_ISDIR(status.st_mode)) return "it is no folder";
  const bool isSticky = (status.st_mode & S_ISVTX) != 0;
  if (isSticky && !holdsFile) status.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
  return reasonToDistrust(status);
}

/// "/", "a", "b" of "/a//./b".
std::vector<std::string> partsOf(const std::filesystem::path& path) {
  std::vector<std::string> parts;
  for (const auto& part : path) {
    if (!part.empty() && part != ".") parts.push_back(part.string());
  }
  return parts;
}

}  // namespace

const char* reasonToDistrust(const struct stat& status) {
  if (status.st_uid != 0 && status.st_uid != ::geteuid())
    return "it belongs neither to root nor to this user";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others can write it";
  return nullptr;
}

OpenedFile openTrustedFile(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  if (error || path.find('\0') != std::string::npos) return failure(path, "no path of a file");
  const std::vector<std::string> parts = partsOf(absolute);
  std::filesystem::path walked;
  FileDescriptor place;
  for (size_t i = 0; i < parts.size(); ++i) {
    walked /= parts[i];
    // Step by step from what has just been checked: nothing can be exchanged in between.
    FileDescriptor next(::openat(place.get(), parts[i].c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!next.isOpen() || ::fstat(next.get(), &status) != 0) return systemFailure(walked.string());
    const bool isFile = i + 1 == parts.size();
    const char* const reason =
        isFile ? reasonAgainstFile(status) : reasonAgainstFolder(status, i + 2 == parts.size());
    if (reason != nullptr) return failure(walked.string(), reason);
    place = std::move(next);
  }
  return place;
}

}  // namespace zun
