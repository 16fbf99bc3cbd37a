#pragma once

#include <atomic>
#include <string_view>

#include "platform/Clock.h"
#include "platform/Locale.h"

namespace zun {

/// Region from a locale's name: "de_DE.UTF-8" is in "DE". None for names without one
/// ("C", "POSIX", "de") and for what is no region code.
[[nodiscard]] std::optional<std::string> regionOfLocaleName(std::string_view name);

/// The environment's locale, as it was at construction (LC_ALL, else LC_MESSAGES, else
/// LANG), and the system's time zone, as it is now. Any thread.
class SystemLocale final : public Locale {
 public:
  /// `clock` outlives the locale.
  explicit SystemLocale(const Clock& clock);

  [[nodiscard]] std::optional<std::string> regionCode() const override { return region_; }
  [[nodiscard]] int32_t timeZoneOffsetSeconds() const override;

 private:
  const Clock& clock_;
  const std::optional<std::string> region_;
  // The second that the offset was last looked up for and the offset, in one word:
  // events ask far more often than the zone can change.
  mutable std::atomic<uint64_t> lastOffset_{0};
};

}  // namespace zun
