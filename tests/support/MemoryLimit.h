#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>

namespace zun {

/// While it lives, the process has at most so many bytes of address space more than it
/// had before. Not under sanitizers, whose own memory is beyond all limits.
class MemoryLimit final {
 public:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  static constexpr bool kIsPossible = false;
#else
  static constexpr bool kIsPossible = true;
#endif

  explicit MemoryLimit(size_t bytes) {
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    EXPECT_EQ(::getrlimit(RLIMIT_AS, &before_), 0);
    rlimit limit = before_;
    limit.rlim_cur = pages * static_cast<size_t>(::sysconf(_SC_PAGESIZE)) + bytes;
    EXPECT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
  }
  ~MemoryLimit() {
    EXPECT_EQ(::setrlimit(RLIMIT_AS, &before_), 0);
  }
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

 private:
  rlimit before_{};
};

}  // namespace zun
