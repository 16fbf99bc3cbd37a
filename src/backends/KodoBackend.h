#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backends/ZunReportingBackend.h"
#include "platform/ModuleLoader.h"

namespace zun {

/// Hands each event to the metrics adaptor, an object of a module that the integrator
/// supplies. Keeps nothing itself. Without the module there still is a backend: each of
/// its events is an error line, and the next backend looks for the module again.
///
/// Threading: as ZunReportingBackend says, so the adaptor sees one call at a time.
/// Ownership: the adaptor is this backend's own; its module outlives both.
class KodoBackend final : public ZunReportingBackend {
 public:
  /// Where the adaptor's module is, under the daemon's root.
  static constexpr std::string_view kAdaptorModulePath =
      "/usr/lib/zunreportingd/private/Confero/QelPerformance.so";

  [[nodiscard]] static bool isClientTypeAllowed(int32_t clientType);

  /// Always none: without a client type there is no adaptor to forward to.
  static std::shared_ptr<KodoBackend> initWithName(const ReportingServices& services, std::string_view name,
                                                   const Value& profile,
                                                   const std::optional<std::string>& productFamily);
  /// None, after an error line, for a client type that is not allowed. Needs nothing of
  /// its profile, nor a product family. Loads the adaptor's module on its first use.
  static std::shared_ptr<KodoBackend> initWithName(const ReportingServices& services, std::string_view name,
                                                   const Value& profile,
                                                   const std::optional<std::string>& productFamily,
                                                   int32_t clientType);

  using ZunReportingBackend::sendMessage;

  /// Waits for the adaptor. Time, event number and flag are not passed on.
  std::optional<std::string> sendMessage(const std::optional<Dictionary>& message, const TimeValue& timestamp,
                                         uint16_t method, uint16_t respCode, uint16_t eventID,
                                         int32_t flag) override;

 private:
  using ZunReportingBackend::ZunReportingBackend;
  void loadAdaptor();

  std::shared_ptr<const Module> clientBundle_;
  std::unique_ptr<ModuleObject> kodoAdaptor_;
};

}  // namespace zun
