#pragma once

#include <sys/eventfd.h>

#include "linux/files/FileDescriptor.h"

namespace zun {

/// Wakes a thread that waits for it to become readable, and is readable until that has taken
/// the signal, however often it came.
///
/// Threading: `signal` on any thread.
class WakeDescriptor final {
 public:
  /// Not open, and errno says why, where the system has none left.
  WakeDescriptor() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  [[nodiscard]] bool isOpen() const { return descriptor_.isOpen(); }
  [[nodiscard]] int get() const { return descriptor_.get(); }

  void signal() const {
    // Only a full counter refuses, and then the thread is awake already.
    static_cast<void>(::eventfd_write(get(), 1));
  }
  /// True where there was a signal. Waits for none.
  bool take() const {
    eventfd_t count = 0;
    return ::eventfd_read(get(), &count) == 0;
  }
  void reset() { descriptor_.reset(); }

 private:
  FileDescriptor descriptor_;
};

}  // namespace zun
