#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace zun {

/// A module of tests/modules as it was built, copied to `path` with the folders above it:
/// a file of its own, which the process has not loaded yet, and which only its owner can
/// write, whatever the umask.
inline void installTestModule(const std::string& name, const std::string& path) {
  const std::filesystem::path target(path);
  const mode_t umaskBefore = ::umask(022);
  std::filesystem::create_directories(target.parent_path());
  ::umask(umaskBefore);
  std::filesystem::copy_file(std::filesystem::path(ZUN_TEST_MODULES) / (name + ".so"), target,
                             std::filesystem::copy_options::overwrite_existing);
  ::chmod(path.c_str(), 0755);
}

/// The record of the recording adaptor: while this lives, it writes to a file of the test's.
class AdaptorRecord final {
 public:
  explicit AdaptorRecord(std::string path) : path_(std::move(path)) {
    ::setenv("ZUN_TEST_ADAPTOR_FILE", path_.c_str(), 1);
  }
  ~AdaptorRecord() { ::unsetenv("ZUN_TEST_ADAPTOR_FILE"); }
  AdaptorRecord(const AdaptorRecord&) = delete;
  AdaptorRecord& operator=(const AdaptorRecord&) = delete;

  /// What was written so far.
  std::string text() const {
    std::ifstream file(path_);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  const std::string path_;
};

}  // namespace zun
