#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/PlatformServices.h"
#include "util/DeviceIdentity.h"

namespace zun {

/// Which section of a storebag applies.
enum StorebagEnvironment : uint32_t {
  kDevelopment = 1,
  kVantixInternal = 2,
  kSeed = 3,
  kRelease = 4,
};

/// The environment in force, read afresh from the user defaults ("environmentType").
/// A number that names no section (0) is given as it is.
[[nodiscard]] uint32_t userDefaultsEnvironment(const PlatformServices& platform,
                                               const DeviceIdentity& identity);

/// Key of an environment's section; none for a number that names none.
[[nodiscard]] std::optional<std::string_view> environmentName(uint32_t environment);

}  // namespace zun
