#include "linux/system/SystemRandom.h"

#include <sys/random.h>

#include <cerrno>

#include "values/Check.h"

namespace zun {

namespace {

template <typename Bytes>
Bytes randomBytes() {
  Bytes bytes{};
  ssize_t got = 0;
  do {
    got = getrandom(&bytes, sizeof bytes, 0);
  } while (got < 0 && errno == EINTR);
  // So few come whole or not at all, and nothing but a signal fails it on any kernel that this runs on.
  ZUN_CHECK(got == sizeof bytes);
  return bytes;
}

}  // namespace

uint32_t SystemRandom::uniformBelow(uint32_t bound) {
  if (bound == 0) return 0;
  // The high half of word * bound is uniform once the few low halves that would make
  // some results likelier are drawn again.
  const uint32_t biased = (0 - bound) % bound;
  uint64_t product = 0;
  do {
    product = uint64_t{randomBytes<uint32_t>()} * bound;
  } while (static_cast<uint32_t>(product) < biased);
  return static_cast<uint32_t>(product >> 32);
}

std::array<std::byte, 16> SystemRandom::uuidBytes() {
  auto bytes = randomBytes<std::array<std::byte, 16>>();
  bytes[6] = (bytes[6] & std::byte{0x0F}) | std::byte{0x40};  // version 4
  bytes[8] = (bytes[8] & std::byte{0x3F}) | std::byte{0x80};  // its variant
  return bytes;
}

}  // namespace zun
