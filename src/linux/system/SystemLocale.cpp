#include "linux/system/SystemLocale.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace zun {

namespace {

bool isAsciiLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool isAsciiDigit(char c) {
  return c >= '0' && c <= '9';
}

std::optional<std::string> environmentRegion() {
  for (const char* const variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* const name = std::getenv(variable);
    if (name != nullptr && *name != '\0') return regionOfLocaleName(name);
  }
  return std::nullopt;
}

constexpr unsigned kOffsetBits = 20;
constexpr int32_t kOffsetBias = 1 << (kOffsetBits - 1);

}  // namespace

std::optional<std::string> regionOfLocaleName(std::string_view name) {
  name = name.substr(0, name.find_first_of(".@"));
  const size_t separator = name.rfind('_');
  if (separator == std::string_view::npos) return std::nullopt;
  std::string region(name.substr(separator + 1));
  const bool isLetters = region.size() == 2 && std::all_of(region.begin(), region.end(), isAsciiLetter);
  const bool isNumber = region.size() == 3 && std::all_of(region.begin(), region.end(), isAsciiDigit);
  if (!isLetters && !isNumber) return std::nullopt;
  for (char& c : region) {
    if (c >= 'a') c = static_cast<char>(c - 'a' + 'A');
  }
  return region;
}

SystemLocale::SystemLocale(const Clock& clock) : clock_(clock), region_(environmentRegion()) {}

int32_t SystemLocale::timeZoneOffsetSeconds() const {
  const int64_t second = clock_.timeOfDay().seconds;
  const uint64_t key = static_cast<uint64_t>(second) << kOffsetBits;
  const uint64_t last = lastOffset_.load(std::memory_order_relaxed);
  constexpr uint64_t kOffsetMask = (uint64_t{1} << kOffsetBits) - 1;
  if ((last & ~kOffsetMask) == key && last != 0) {
    return static_cast<int32_t>(last & kOffsetMask) - kOffsetBias;
  }

  const auto time = static_cast<time_t>(second);
  tm local{};
  tzset();  // the zone may have changed since
  if (localtime_r(&time, &local) == nullptr) return 0;
  const auto offset = static_cast<int32_t>(local.tm_gmtoff);
  lastOffset_.store(key | static_cast<uint64_t>(offset + kOffsetBias), std::memory_order_relaxed);
  return offset;
}

}  // namespace zun
