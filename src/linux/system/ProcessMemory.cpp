#include "platform/ProcessMemory.h"

#include <malloc.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

namespace zun {

uint64_t anonymousMemoryInUse() {
  constexpr std::string_view kField = "RssAnon:";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> status(std::fopen("/proc/self/status", "re"),
                                                               &std::fclose);
  if (!status) return 0;
  std::array<char, 256> line{};
  while (std::fgets(line.data(), static_cast<int>(line.size()), status.get()) != nullptr) {
    std::string_view text(line.data());
    if (!text.starts_with(kField)) continue;
    text.remove_prefix(kField.size());
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    uint64_t kibibytes = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), kibibytes);
    return parsed.ec == std::errc() ? kibibytes * 1024 : 0;
  }
  return 0;
}

void boundAllocator() {
  // A heap for each thread is what one burst of many connections leaves behind.
  constexpr int kMostHeaps = 2;
  // Fixed: left to itself it follows the largest block that was ever freed.
  constexpr int kOwnMappingBytes = 1 << 20;
  ::mallopt(M_ARENA_MAX, kMostHeaps);
  ::mallopt(M_MMAP_THRESHOLD, kOwnMappingBytes);
}

void returnFreeMemory() {
  constexpr uint64_t kLittle = uint64_t{8} << 20;
  const struct mallinfo2 heaps = ::mallinfo2();
  if (anonymousMemoryInUse() > heaps.uordblks + heaps.hblkhd + kLittle) ::malloc_trim(0);
}

}  // namespace zun
