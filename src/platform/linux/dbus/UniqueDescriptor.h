#pragma once

#include <unistd.h>

#include <utility>

namespace zun {

/// Owns a file descriptor; closes it at its end.
class UniqueDescriptor final {
 public:
  UniqueDescriptor() = default;
  explicit UniqueDescriptor(int descriptor) : descriptor_(descriptor) {}
  UniqueDescriptor(UniqueDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~UniqueDescriptor() { reset(); }

  explicit operator bool() const { return descriptor_ >= 0; }
  [[nodiscard]] int get() const { return descriptor_; }
  [[nodiscard]] int release() { return std::exchange(descriptor_, -1); }
  void reset() {
    if (const int descriptor = release(); descriptor >= 0) ::close(descriptor);
  }

 private:
  int descriptor_ = -1;
};

}  // namespace zun
