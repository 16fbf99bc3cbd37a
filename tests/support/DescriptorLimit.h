#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace zun {

/// The process has at most so many descriptors while this lives.
class DescriptorLimit final {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    set(limit);
  }
  ~DescriptorLimit() { set(before_.rlim_cur); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  void set(rlim_t limit) const {
    const rlimit changed{limit, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &changed), 0);
  }

 private:
  rlimit before_{};
};

}  // namespace zun
