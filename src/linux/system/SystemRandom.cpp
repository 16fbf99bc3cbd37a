#include "linux/system/SystemRandom.h"

#include <sys/random.h>
#include <systemd/sd-id128.h>

#include <cerrno>
#include <cstring>

#include "values/Check.h"

namespace zun {

namespace {

uint32_t randomWord() {
  uint32_t word = 0;
  ssize_t got = 0;
  do {
    got = getrandom(&word, sizeof word, 0);
  } while (got < 0 && errno == EINTR);
  ZUN_CHECK(got == sizeof word);  // so few bytes come whole or not at all
  return word;
}

}  // namespace

uint32_t SystemRandom::uniformBelow(uint32_t bound) {
  if (bound == 0) return 0;
  // The high half of word * bound is uniform once the few low halves that would make
  // some results likelier are drawn again.
  const uint32_t biased = (0 - bound) % bound;
  uint64_t product = 0;
  do {
    product = uint64_t{randomWord()} * bound;
  } while (static_cast<uint32_t>(product) < biased);
  return static_cast<uint32_t>(product >> 32);
}

std::array<std::byte, 16> SystemRandom::uuidBytes() {
  sd_id128_t id{};
  const int outcome = sd_id128_randomize(&id);
  ZUN_CHECK(outcome >= 0);
  std::array<std::byte, 16> bytes{};
  std::memcpy(bytes.data(), id.bytes, bytes.size());
  return bytes;
}

}  // namespace zun
