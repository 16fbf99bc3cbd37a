#include "backends/JoulexBackend.h"

#include "backends/MessageBlob.h"

namespace zun {

namespace {

constexpr uint32_t kEventCategory = 28;
constexpr std::string_view kSenderName = "Pallax-ZUN";

}  // namespace

std::shared_ptr<JoulexBackend> JoulexBackend::initWithName(const ReportingServices& services,
                                                           std::string_view name, const Value& profile,
                                                           const std::optional<std::string>& productFamily) {
  const Dictionary* const section = profile.dictionary();
  return std::shared_ptr<JoulexBackend>(new JoulexBackend(
      services, std::string(name), section == nullptr ? Dictionary() : *section, productFamily.value_or("")));
}

std::optional<std::string> JoulexBackend::sendMessage(const std::optional<Dictionary>& message,
                                                      const TimeValue& /*timestamp*/, uint16_t method,
                                                      uint16_t respCode, uint16_t eventID, int32_t /*flag*/) {
  Dictionary event = eventPayload(message);
  if (method == 0 || event.empty()) return std::nullopt;
  event.set(Value::literal("method"), method);
  event.set(Value::literal("respCode"), respCode);
  event.set(Value::literal("event"), eventID);
  services_.platform.powerLog.writeEvent(kEventCategory, kSenderName, event);
  return std::nullopt;
}

}  // namespace zun
