#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/DeviceProperties.h"
#include "platform/MemoryBudget.h"
#include "platform/PlatformServices.h"
#include "values/Value.h"

namespace zun {

/// Who the device is, and the identifiers it reports under.
///
/// Threading: any thread. Ownership: one per process, made by main; the services
/// outlive it. Nothing but the internal build flag is cached.
class DeviceIdentity final {
 public:
  explicit DeviceIdentity(const PlatformServices& platform);

  /// Copies the device's unique identifier as UTF-8 into `buffer`, which ends with a
  /// zero then. An unavailable identifier leaves the buffer untouched; one that does
  /// not fit is cut at the end of the buffer.
  void copyUniqueDeviceID(std::span<char> buffer) const;

  [[nodiscard]] std::optional<std::string> productVersion() const;
  [[nodiscard]] std::optional<std::string> buildVersion() const;
  [[nodiscard]] std::optional<std::string> hardwareModel() const;  // "HWModelStr"
  [[nodiscard]] std::optional<std::string> serialNumber() const;
  [[nodiscard]] std::optional<std::string> productType() const;
  [[nodiscard]] std::optional<std::string> deviceName() const;

  /// "ReleaseType" is "Internal"; asked once, on first use.
  [[nodiscard]] bool isInternalBuild() const;

  /// How many identifiers are stored for client and service names, and the longest key
  /// that one is stored under. Clients choose their names, the disk is the device's. Who has
  /// them is stored beside them: nobody's share is new after a restart.
  static constexpr size_t kMaximumCustomIdentifiers = 1024;
  static constexpr size_t kMaximumKeyBytes = 512;

  /// The identifier stored for a client and service name (either may be missing),
  /// made on first use. Two first calls at once may each store their own; the later
  /// one stays. Beyond the bounds above, and `holder`'s share of them as in MemoryBudget, a
  /// new identifier is given but not stored, and the first time is an error line.
  [[nodiscard]] std::string getPersistentIdentifierForCustomClientIDSuffix(
      const std::optional<std::string>& firstPart, const std::optional<std::string>& secondPart,
      BudgetHolder holder = {}) const;

  /// The device's reporting identifier. With `respectingDNU`, only while the user lets
  /// diagnostic data leave the device is it the stored one; otherwise it is a fresh
  /// one each time, which ties no two reports together.
  [[nodiscard]] std::string getPersistentIdentifierForDNU(bool respectingDNU) const;

 private:
  [[nodiscard]] bool mayStoreUnder(std::string_view key, BudgetHolder holder) const;
  [[nodiscard]] bool hasShareLeft(BudgetHolder holder) const;

  const PlatformServices& platform_;
  mutable std::once_flag internalBuildOnce_;
  mutable bool isInternalBuild_ = false;
  mutable std::atomic<bool> hasToldOfBound_{false};
};

}  // namespace zun
