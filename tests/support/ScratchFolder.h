#pragma once

#include <filesystem>
#include <string>

namespace zun {

/// A fresh folder that goes away with the object.
class ScratchFolder final {
 public:
  ScratchFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "zun-test-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string path(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

}  // namespace zun
