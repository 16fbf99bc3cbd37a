#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string_view>

namespace zun {

/// The hash of tables whose keys come from outside. It is seeded, so nobody can choose keys
/// that collide, as they can with the standard library's. Differs from process to process;
/// any thread.
inline uint64_t seededHash(std::string_view text) {
  static const uint64_t seed = std::random_device{}() * 0x9E3779B97F4A7C15ULL | 1;
  uint64_t hash = seed ^ (text.size() * 0xFF51AFD7ED558CCDULL);
  __extension__ using Product = unsigned __int128;
  const auto mix = [&hash](uint64_t word) {
    const auto product = static_cast<Product>(hash ^ word) * 0xA0761D6478BD642FULL;
    hash = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64) ^ seed;
  };
  uint64_t word = 0;
  while (text.size() >= sizeof word) {
    std::memcpy(&word, text.data(), sizeof word);
    mix(word);
    text.remove_prefix(sizeof word);
  }
  word = 0;
  if (!text.empty()) std::memcpy(&word, text.data(), text.size());
  mix(word);
  return hash;
}

struct SeededHash {
  size_t operator()(std::string_view text) const { return seededHash(text); }
};

}  // namespace zun
