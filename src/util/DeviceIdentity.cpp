#include "util/DeviceIdentity.h"

#include <algorithm>
#include <string_view>

#include "values/UUID.h"

namespace zun {

namespace {

constexpr std::string_view kPersistentIdentifierKey = "persistentIdentifier";
constexpr std::string_view kCustomIdentifierPrefix = "uuid:";

// Where `text` can be cut to fit `capacity` without cutting a character.
size_t lengthOfWholeCharacters(std::string_view text, size_t capacity) {
  if (text.size() <= capacity) return text.size();
  const auto continues = [&text](size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80; };
  while (capacity > 0 && continues(capacity)) --capacity;
  return capacity;
}

std::optional<std::string> storedIdentifier(const PlatformServices& platform, std::string_view key) {
  return platform.defaults.stringForKey(kReportingSuite, key);
}

std::string storeNewIdentifier(const PlatformServices& platform, std::string_view key) {
  std::string made = uuidString(platform.random.uuidBytes());
  platform.defaults.setObject(kReportingSuite, key, made);
  return made;
}

// Keys that tell whose an identifier is begin so, and end with the identifier's own.
std::string prefixOfUser(BudgetHolder holder) {
  return fmt::format("holder:{}:", holder.user);
}
std::string prefixOfMember(BudgetHolder holder) {
  return fmt::format("holder:{}:{}:", holder.user, holder.member);
}

/// Both or neither: an identifier without its holder would count for nobody.
std::string storeNewIdentifierOf(BudgetHolder holder, const PlatformServices& platform,
                                 const std::string& key) {
  if (holder.isDaemon()) return storeNewIdentifier(platform, key);
  std::string made = uuidString(platform.random.uuidBytes());
  const std::string holderKey = prefixOfMember(holder) + key;
  if (const auto staged = platform.defaults.stageObjects(kReportingSuite, {{key, made}, {holderKey, true}})) {
    staged->publish();
  }
  return made;
}

}  // namespace

DeviceIdentity::DeviceIdentity(const PlatformServices& platform) : platform_(platform) {}

void DeviceIdentity::copyUniqueDeviceID(std::span<char> buffer) const {
  const auto identifier = platform_.device.property("UniqueDeviceID");
  if (!identifier || buffer.empty()) return;
  const size_t length = lengthOfWholeCharacters(*identifier, buffer.size() - 1);
  std::copy_n(identifier->begin(), length, buffer.begin());
  buffer[length] = '\0';
  buffer.back() = '\0';
}

std::optional<std::string> DeviceIdentity::productVersion() const {
  return platform_.device.property("ProductVersion");
}

std::optional<std::string> DeviceIdentity::buildVersion() const {
  return platform_.device.property("BuildVersion");
}

std::optional<std::string> DeviceIdentity::hardwareModel() const {
  return platform_.device.property("HWModelStr");
}

std::optional<std::string> DeviceIdentity::serialNumber() const {
  return platform_.device.property("SerialNumber");
}

std::optional<std::string> DeviceIdentity::productType() const {
  return platform_.device.property("ProductType");
}

std::optional<std::string> DeviceIdentity::deviceName() const {
  return platform_.device.property("DeviceName");
}

bool DeviceIdentity::isInternalBuild() const {
  std::call_once(internalBuildOnce_,
                 [this] { isInternalBuild_ = platform_.device.property("ReleaseType") == "Internal"; });
  return isInternalBuild_;
}

std::string DeviceIdentity::getPersistentIdentifierForCustomClientIDSuffix(
    const std::optional<std::string>& firstPart, const std::optional<std::string>& secondPart,
    BudgetHolder holder) const {
  const std::string key =
      fmt::format("{}:{}:{}", "uuid", firstPart.value_or(std::string()), secondPart.value_or(std::string()));
  auto stored = storedIdentifier(platform_, key);
  const std::string value = stored                       ? *std::move(stored)
                            : mayStoreUnder(key, holder) ? storeNewIdentifierOf(holder, platform_, key)
                                                         : uuidString(platform_.random.uuidBytes());
  platform_.log.note("getPersistentIdentifierForCustomClientIDSuffix: The value for {}: {}", key, value);
  return value;
}

/// MemoryBudget's rule, of what is stored.
bool DeviceIdentity::hasShareLeft(BudgetHolder holder) const {
  const auto count = [this](std::string_view prefix) {
    return platform_.defaults.countOfKeys(kReportingSuite, prefix);
  };
  const size_t stored = count(kCustomIdentifierPrefix);
  if (stored >= kMaximumCustomIdentifiers || holder.isDaemon()) return stored < kMaximumCustomIdentifiers;
  const size_t ofUser = count(prefixOfUser(holder));
  const size_t left = kMaximumCustomIdentifiers - stored + ofUser;
  return ofUser + 1 + count(prefixOfMember(holder)) + 1 <= left / 2;
}

bool DeviceIdentity::mayStoreUnder(std::string_view key, BudgetHolder holder) const {
  const bool hasRoom = key.size() <= kMaximumKeyBytes && hasShareLeft(holder);
  if (!hasRoom && !hasToldOfBound_.exchange(true)) {
    platform_.log.error(
        "getPersistentIdentifierForCustomClientIDSuffix: "
        "Not storing identifiers beyond a client's share of {} of them or {} bytes of key",
        kMaximumCustomIdentifiers, kMaximumKeyBytes);
  }
  return hasRoom;
}

std::string DeviceIdentity::getPersistentIdentifierForDNU(bool respectingDNU) const {
  if (respectingDNU && !diagnosticSubmissionEnabled(platform_.defaults)) {
    return uuidString(platform_.random.uuidBytes());
  }
  auto stored = storedIdentifier(platform_, kPersistentIdentifierKey);
  return stored ? *std::move(stored) : storeNewIdentifier(platform_, kPersistentIdentifierKey);
}

}  // namespace zun
