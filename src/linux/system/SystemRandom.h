#pragma once

#include "platform/RandomSource.h"

namespace zun {

/// The kernel's random numbers. Any thread.
class SystemRandom final : public RandomSource {
 public:
  [[nodiscard]] uint32_t uniformBelow(uint32_t bound) override;
  [[nodiscard]] std::array<std::byte, 16> uuidBytes() override;
};

}  // namespace zun
