#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backends/ZunReportingBackend.h"

namespace zun {

/// Writes each event into the platform's power-event log, at once. Events of method 0
/// (a session's own) and events without a payload are passed over in silence.
///
/// Threading and ownership: as ZunReportingBackend says.
class JoulexBackend final : public ZunReportingBackend {
 public:
  /// Needs nothing of its profile, nor a product family.
  static std::shared_ptr<JoulexBackend> initWithName(const ReportingServices& services, std::string_view name,
                                                     const Value& profile,
                                                     const std::optional<std::string>& productFamily);

  using ZunReportingBackend::sendMessage;

  /// The payload goes with "method", "respCode" and "event" (the event number) set in it.
  std::optional<std::string> sendMessage(const std::optional<Dictionary>& message, const TimeValue& timestamp,
                                         uint16_t method, uint16_t respCode, uint16_t eventID,
                                         int32_t flag) override;

 private:
  using ZunReportingBackend::ZunReportingBackend;
};

}  // namespace zun
