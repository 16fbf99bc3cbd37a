#include <algorithm>

#include "session/BackendTable.h"
#include "storebag/ClientTypes.h"
#include "zunreporting/Keys.h"

namespace zun {

using namespace zunreporting;

namespace {

ResponseRole responseRole(std::string_view name) {
  if (name == kZunReportingBackendHTTPPost2 ||
      name.find(kZunReportingBackendHTTPPost) != std::string_view::npos)
    return ResponseRole::kAnswer;
  return name == kZunReportingBackendDashboard ? ResponseRole::kFallback : ResponseRole::kIgnored;
}

/// What every new backend of one creation is told alike.
class BackendIdentity final {
 public:
  BackendIdentity(const ReportingServices& services, const BackendCreationOptions& options)
      : options_(options),
        startTime_(services.platform.clock.timeOfDay()),
        productVersion_(services.identity.productVersion()),
        buildVersion_(services.identity.buildVersion()),
        productType_(services.identity.productType()),
        isInternal_(services.identity.isInternalBuild()),
        selfVersion_(versionOrDefault(services.platform.bundle)) {}

  void applyTo(ZunReportingBackend& backend) const {
    const Dictionary& info = *options_.sessionInfo;
    const Value& requireUserInfo = info[kZunReportingSessionInfoRequireUserInfo];
    backend.setSessionID(static_cast<uint32_t>(info[kZunReportingSessionInfoSessionID].intValue()));
    backend.setCompType(clientTypeOfSessionInfo(info));
    backend.setClientVersion(static_cast<uint16_t>(info[kZunReportingSessionInfoClientVersion].intValue()));
    backend.setUdid(options_.deviceIdentifier);
    backend.setProductVersion(productVersion_);
    backend.setBuildVersion(buildVersion_);
    backend.setHardwareType(productType_);
    backend.setIsInternal(isInternal_);
    backend.setRequireUserInfo(requireUserInfo.isNone() || requireUserInfo.boolValue());
    backend.setBatchEvents(info[kZunReportingSessionInfoBatchEvent].boolValue());
    backend.setUserInfoDict(options_.userInfo);
    backend.setSelfVersion(selfVersion_);
    backend.setStartTimestamp(startTime_);
  }

 private:
  const BackendCreationOptions& options_;
  const TimeValue startTime_;
  const std::optional<std::string> productVersion_;
  const std::optional<std::string> buildVersion_;
  const std::optional<std::string> productType_;
  const bool isInternal_;
  const std::string selfVersion_;
};

}  // namespace

ZunReportingBackend* BackendTable::find(std::string_view name) const {
  for (const Entry& entry : entries) {
    if (entry.name == name) return entry.backend.get();
  }
  return nullptr;
}

bool BackendTable::isAnyEnabled() const {
  return std::any_of(entries.begin(), entries.end(),
                     [](const Entry& entry) { return entry.backend->state() == ZunBackendStateEnabled; });
}

std::shared_ptr<const BackendTable> createBackends(const ReportingServices& services,
                                                   const BackendFactory& factory,
                                                   const BackendCreationOptions& options) {
  if (options.storebag == nullptr) {
    services.platform.log.error("createBackends: Attempted to create backends with nil storebag");
    return nullptr;
  }
  if (options.sessionInfo == nullptr) {
    services.platform.log.error("createBackends: Attempted to create backends with nil session info");
    return nullptr;
  }
  const BackendIdentity identity(services, options);
  const auto deviceName = services.identity.deviceName();
  const int32_t clientType = clientTypeOfSessionInfo(*options.sessionInfo);

  auto table = std::make_shared<BackendTable>();
  for (const auto& [key, profile] : *options.storebag) {
    auto backend = factory(services, key.stringValue(), profile, deviceName, clientType);
    if (backend == nullptr) continue;
    backend->setObserver(options.observer);
    identity.applyTo(*backend);
    table->entries.push_back(
        {std::string(key.stringValue()), std::move(backend), responseRole(key.stringValue())});
  }
  return table;
}

}  // namespace zun
