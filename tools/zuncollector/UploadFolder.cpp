#include "UploadFolder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace zun {

IncomingFile::IncomingFile(IncomingFile&& other) noexcept
    : folder_(std::move(other.folder_)),
      lastNumber_(other.lastNumber_),
      path_(std::exchange(other.path_, {})),
      descriptor_(std::exchange(other.descriptor_, -1)),
      isWhole_(other.isWhole_) {}

IncomingFile::~IncomingFile() {
  if (descriptor_ >= 0) close(descriptor_);
  if (!path_.empty()) unlink(path_.c_str());
}

bool IncomingFile::append(std::string_view bytes) {
  while (!bytes.empty() && isWhole_ && descriptor_ >= 0) {
    const ssize_t count = write(descriptor_, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<size_t>(count));
    } else {
      isWhole_ = errno == EINTR;
    }
  }
  return isWhole_;
}

std::optional<std::string> IncomingFile::complete(std::string_view name) {
  if (!isWhole_ || descriptor_ < 0) return std::nullopt;
  for (;;) {
    std::string kept = fmt::format("{:06}-{}", ++lastNumber_, name);
    // Unlike a rename, a link takes nobody's place: files of an earlier run stay.
    if (link(path_.c_str(), fmt::format("{}/{}", folder_, kept).c_str()) == 0) return kept;
    if (errno != EEXIST) return std::nullopt;
  }
}

Result<IncomingFile, std::string> UploadFolder::begin() {
  IncomingFile file(path_, lastNumber_);
  std::string path = path_ + "/.incoming-XXXXXX";
  file.descriptor_ = mkostemp(path.data(), O_CLOEXEC);
  if (file.descriptor_ < 0) {
    return Result<IncomingFile, std::string>::failure(
        fmt::format("cannot keep a file in {}: {}", path_, std::generic_category().message(errno)));
  }
  file.path_ = path;
  return file;
}

void UploadFolder::remove(const std::string& name) const {
  unlink(fmt::format("{}/{}", path_, name).c_str());
}

std::optional<std::string> UploadFolder::read(const std::string& name) const {
  if (!keepsFiles() || name.empty() || name.front() == '.' || name.find('/') != std::string::npos) {
    return std::nullopt;
  }
  std::ifstream file(path_ + "/" + name, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string{std::istreambuf_iterator<char>(file), {}};
}

}  // namespace zun
