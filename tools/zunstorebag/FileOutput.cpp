#include "FileOutput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

}  // namespace

std::optional<std::string> writeWholeFile(const std::string& path, std::string_view bytes, unsigned mode,
                                          Overwrite overwrite) {
  const auto failure = [&path] { return fmt::format("cannot write {}: {}", path, std::strerror(errno)); };
  std::string temporary = path + ".XXXXXX";
  const int file = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (file < 0) return failure();
  std::optional<std::string> error;
  if (::fchmod(file, mode & ~processUmask()) != 0 || !writeAll(file, bytes) || ::fsync(file) != 0) {
    error = failure();
  }
  ::close(file);
  if (!error && overwrite == Overwrite::kReplace) {
    if (::rename(temporary.c_str(), path.c_str()) != 0) error = failure();
    if (!error) return std::nullopt;
  } else if (!error && ::link(temporary.c_str(), path.c_str()) != 0) {
    error = failure();
  }
  ::unlink(temporary.c_str());
  return error;
}

}  // namespace zun
