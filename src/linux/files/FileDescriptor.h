#pragma once

#include <unistd.h>

#include <utility>

namespace zun {

/// Owns a file descriptor. One thread at a time.
class FileDescriptor final {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset();
      descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
  }
  ~FileDescriptor() { reset(); }

  [[nodiscard]] bool isOpen() const { return descriptor_ >= 0; }
  [[nodiscard]] int get() const { return descriptor_; }
  /// The caller closes it from now on.
  [[nodiscard]] int release() { return std::exchange(descriptor_, -1); }
  void reset() {
    if (isOpen()) ::close(std::exchange(descriptor_, -1));
  }

 private:
  int descriptor_ = -1;
};

}  // namespace zun
