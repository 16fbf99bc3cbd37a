// What the end of a session tells about the whole daemon.

#include <array>

#include "session/ReportingdSession.h"
#include "storebag/ClientTypes.h"
#include "util/MemoryUse.h"
#include "zunreporting/Keys.h"

namespace zun {

namespace {

/// Keys of the figures of one client type.
struct HealthKeys {
  std::string sessionsCount;
  std::string batchSize;
};

/// One for each client type, the last for all that have no name.
using HealthKeyTable = std::array<HealthKeys, kClientTypeCount + 1>;

HealthKeyTable makeHealthKeys() {
  HealthKeyTable table;
  for (int32_t clientType = 0; clientType <= kClientTypeCount; ++clientType) {
    const std::string_view name = storebagNameForClientType(clientType).value_or("Unknown");
    table[static_cast<size_t>(clientType)] = {fmt::format("{}_{}", "SessionsCount", name),
                                              fmt::format("{}_{}", "BatchSize", name)};
  }
  return table;
}

const HealthKeys& healthKeysOf(const ReportingdSession& session) {
  static const HealthKeyTable kTable = makeHealthKeys();
  const int32_t clientType =
      session.sessionInfo()[zunreporting::kZunReportingSessionInfoClientType].int32Value();
  const bool isNamed = clientType >= 0 && clientType < kClientTypeCount;
  return kTable[static_cast<size_t>(isNamed ? clientType : kClientTypeCount)];
}

}  // namespace

uint64_t ReportingdSession::batchedEventsSize() const {
  const auto backends = backendsSnapshot();
  uint64_t bytes = 0;
  if (backends == nullptr) return bytes;
  for (const auto& entry : backends->entries) bytes += entry.backend->batchedEventsSize();
  return bytes;
}

uint64_t ReportingdSession::addSessionHealthInfo(const ReportingdSession& session, Dictionary& healthReport) {
  const HealthKeys& keys = healthKeysOf(session);
  const int64_t count = healthReport[keys.sessionsCount].int32Value();
  healthReport.set(Value::literal(keys.sessionsCount), count + 1);
  const uint64_t size = session.batchedEventsSize();
  const int64_t gathered = healthReport[keys.batchSize].int32Value();
  healthReport.set(Value::literal(keys.batchSize), static_cast<int64_t>(size) + gathered);
  return size;
}

void ReportingdSession::addSessionsAccumulatedHealthInfoToPayload(
    Dictionary& payload, const std::vector<std::shared_ptr<ReportingdSession>>& sessionList,
    const Dictionary& storebags) const {
  uint64_t batchedBytes = 0;
  for (const auto& session : sessionList) batchedBytes += addSessionHealthInfo(*session, payload);
  // The session's own figures come on top, even where the list has it.
  batchedBytes += addSessionHealthInfo(*this, payload);

  const int64_t storebagsSize = estimatedObjectSize(storebags);
  payload.set("StorebagsCount", storebags.size());
  payload.set("StorebagsSize", storebagsSize);
  payload.set("CalculatedMemoryUsage", static_cast<int64_t>(batchedBytes) + storebagsSize);
  payload.set("ProcessMemoryUsage", processMemoryInUse());
}

}  // namespace zun
