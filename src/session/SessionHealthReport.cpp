// What the end of a session tells about the whole daemon.

#include "session/ReportingdSession.h"
#include "storebag/ClientTypes.h"
#include "util/MemoryUse.h"

namespace zun {

namespace {

/// The storebag's name, not the sender code: client types that share a storebag share figures.
std::string_view clientTypeName(const ReportingdSession& session) {
  return storebagNameForClientType(clientTypeOfSessionInfo(session.sessionInfo())).value_or("Unknown");
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
  const std::string_view name = clientTypeName(session);
  const std::string sessionsCount = fmt::format("SessionsCount_{}", name);
  const std::string batchSize = fmt::format("BatchSize_{}", name);
  healthReport.set(sessionsCount, int64_t{healthReport[sessionsCount].int32Value()} + 1);
  const uint64_t size = session.batchedEventsSize();
  healthReport.set(batchSize, static_cast<int64_t>(size) + healthReport[batchSize].int32Value());
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
