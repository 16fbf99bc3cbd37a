#include "RecordFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace zun {

namespace {

int openForAppending(const std::string& path) {
  if (path.empty()) return -1;
  return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

/// Whether the file at `path` has a last line without its line feed.
bool isCut(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return false;
  struct stat status {};
  char last = '\n';
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
      pread(descriptor, &last, 1, status.st_size - 1) != 1) {
    last = '\n';
  }
  close(descriptor);
  return last != '\n';
}

}  // namespace

RecordFile::RecordFile(std::string path)
    : path_(std::move(path)), descriptor_(openForAppending(path_)), endsWithinALine_(isCut(path_)) {}

RecordFile::~RecordFile() {
  if (descriptor_ >= 0) close(descriptor_);
}

std::string RecordFile::append(std::string_view lines) {
  if (descriptor_ < 0 || lines.empty()) return {};
  const MutexLock lock(mutex_);
  size_t written = 0;
  std::string error;
  if (endsWithinALine_) {
    error = write("\n", written);
    if (!error.empty()) return error;
    endsWithinALine_ = false;
    written = 0;
  }
  error = write(lines, written);
  if (!error.empty() && written > 0) takeBack(written);
  return error;
}

std::string RecordFile::write(std::string_view bytes, size_t& written) const {
  while (written < bytes.size()) {
    const ssize_t count = ::write(descriptor_, bytes.data() + written, bytes.size() - written);
    if (count >= 0) {
      written += static_cast<size_t>(count);
    } else if (errno != EINTR) {
      return fmt::format("cannot write to {}: {}", path_, std::generic_category().message(errno));
    }
  }
  return {};
}

void RecordFile::takeBack(size_t written) {
  // In append mode the offset is where the last write ended; another's bytes may follow.
  const off_t end = lseek(descriptor_, 0, SEEK_CUR);
  struct stat status {};
  const bool isTheEnd = end >= static_cast<off_t>(written) && fstat(descriptor_, &status) == 0 &&
                        S_ISREG(status.st_mode) && status.st_size == end;
  endsWithinALine_ = !isTheEnd || ftruncate(descriptor_, end - static_cast<off_t>(written)) != 0;
}

}  // namespace zun
