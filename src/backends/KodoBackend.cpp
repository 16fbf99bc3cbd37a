#include "backends/KodoBackend.h"

#include <algorithm>
#include <array>
#include <utility>

#include "backends/MessageBlob.h"

namespace zun {

namespace {

constexpr std::array<int32_t, 3> kAllowedClientTypes{7, 11, 13};
constexpr const char* kAdaptorClass = "KodoAdaptor";
constexpr const char* kForwardingSelector = "sendMessageWithMethod:respCode:dict:";

}  // namespace

bool KodoBackend::isClientTypeAllowed(int32_t clientType) {
  return std::find(kAllowedClientTypes.begin(), kAllowedClientTypes.end(), clientType) !=
         kAllowedClientTypes.end();
}

std::shared_ptr<KodoBackend> KodoBackend::initWithName(const ReportingServices& services,
                                                       std::string_view name, const Value& profile,
                                                       const std::optional<std::string>& productFamily) {
  return initWithName(services, name, profile, productFamily, 0);
}

std::shared_ptr<KodoBackend> KodoBackend::initWithName(const ReportingServices& services,
                                                       std::string_view name, const Value& profile,
                                                       const std::optional<std::string>& productFamily,
                                                       int32_t clientType) {
  const Dictionary* const section = profile.dictionary();
  const auto backend = std::shared_ptr<KodoBackend>(new KodoBackend(
      services, std::string(name), section == nullptr ? Dictionary() : *section, productFamily.value_or("")));
  SystemLog& log = services.platform.log;
  log.note("KodoBackend(initWithName): Loading Kodo adaptor class for client type {}", clientType);
  if (!isClientTypeAllowed(clientType)) {
    log.error("KodoBackend(initWithName): No matching bundle found for client type {}", clientType);
    return nullptr;
  }
  backend->loadAdaptor();
  return backend;
}

void KodoBackend::loadAdaptor() {
  const PlatformServices& platform = services_.platform;
  auto module = platform.modules.load(platform.files.resolve(kAdaptorModulePath));
  if (!module) {
    log().note("KodoBackend(initWithName): Kodo adaptor module is not loaded: {}", module.error());
    return;
  }
  clientBundle_ = std::move(*module);
  auto adaptor = clientBundle_->createInstance(kAdaptorClass);
  if (!adaptor) {
    log().note("KodoBackend(initWithName): Kodo adaptor is not created: {}", adaptor.error());
    return;
  }
  kodoAdaptor_ = std::move(*adaptor);
}

std::optional<std::string> KodoBackend::sendMessage(const std::optional<Dictionary>& message,
                                                    const TimeValue& /*timestamp*/, uint16_t method,
                                                    uint16_t respCode, uint16_t /*eventID*/,
                                                    int32_t /*flag*/) {
  if (kodoAdaptor_ != nullptr && kodoAdaptor_->respondsTo(kForwardingSelector)) {
    kodoAdaptor_->perform(kForwardingSelector, method, respCode, eventPayload(message));
  } else {
    log().error("KodoBackend(sendMessage): Kodo adaptor {} does not respond to forwarding selector {}",
                kodoAdaptor_ == nullptr ? "(null)" : kodoAdaptor_->description(), kForwardingSelector);
  }
  return std::nullopt;
}

}  // namespace zun
