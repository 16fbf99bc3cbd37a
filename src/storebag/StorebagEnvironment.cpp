#include "storebag/StorebagEnvironment.h"

namespace zun {

uint32_t userDefaultsEnvironment(const PlatformServices& platform, const DeviceIdentity& identity) {
  const Value stored = platform.defaults.objectForKey(kReportingSuite, "environmentType");
  uint32_t environment = identity.isInternalBuild() ? kVantixInternal : kRelease;
  if (!stored.isNone()) {
    environment = static_cast<uint32_t>(stored.int32Value());
    if (environment > kRelease) {
      platform.log.error("userDefaultsEnvironment: Invalid environment type {}", environment);
      environment = kVantixInternal;
    }
  }
  platform.log.note("userDefaultsEnvironment: Environment type {}", environment);
  return environment;
}

std::optional<std::string_view> environmentName(uint32_t environment) {
  switch (environment) {
    case kDevelopment: return "development";
    case kVantixInternal: return "vantix_internal";
    case kSeed: return "seed";
    case kRelease: return "release";
    default: return std::nullopt;
  }
}

}  // namespace zun
