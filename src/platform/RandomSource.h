#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zun {

/// Cryptographically strong random numbers. Any thread.
class RandomSource {
 public:
  virtual ~RandomSource() = default;

  /// Uniform over 0 to `bound` - 1; 0 for a bound of 0.
  [[nodiscard]] virtual uint32_t uniformBelow(uint32_t bound) = 0;

  /// The 16 bytes of a random (version 4) UUID.
  [[nodiscard]] virtual std::array<std::byte, 16> uuidBytes() = 0;
};

}  // namespace zun
