#pragma once

#include <chrono>

namespace zun {

/// Puts the transfer thread's clock forward while it lives, for our code and libcurl alike.
/// What wakes that thread is as late as before.
class ClockSkew final {
 public:
  ClockSkew() = default;
  ~ClockSkew();
  ClockSkew(const ClockSkew&) = delete;
  ClockSkew& operator=(const ClockSkew&) = delete;

  void advance(std::chrono::seconds by);
};

}  // namespace zun
