#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// Takes a fuzzer's input apart from its front. Beyond its end there are zeros.
class FuzzInput final {
 public:
  FuzzInput(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  [[nodiscard]] bool isAtTheEnd() const { return rest_.empty(); }
  uint8_t byte() {
    const std::string_view one = bytes(1);
    return one.empty() ? uint8_t{0} : static_cast<uint8_t>(one[0]);
  }
  uint8_t below(uint8_t bound) { return static_cast<uint8_t>(byte() % bound); }
  std::string_view bytes(size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return taken;
  }
  /// Up to 255 bytes, with their number in front.
  std::string_view text() { return bytes(byte()); }
  std::string_view rest() { return bytes(rest_.size()); }

 private:
  std::string_view rest_;
};
