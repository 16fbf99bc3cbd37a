#include "backends/LogDataUpload.h"

#include <utility>

#include "connectivity/PostAndWait.h"
#include "util/MemoryUse.h"
#include "values/KeyedArchiver.h"
#include "values/UTF8.h"

namespace zun {

namespace {

/// An archive and what it takes of the budget, let go together.
struct CountedArchive {
  std::unique_ptr<MemoryShare> memory;
  std::string bytes;
};

/// False where the share has not that much.
bool resize(MemoryShare& share, size_t bytes) {
  if (bytes > share.bytes()) return share.grow(bytes - share.bytes());
  share.shrink(share.bytes() - bytes);
  return true;
}

}  // namespace

std::optional<std::string> uploadLogDataArray(const std::optional<std::string>& postURL, const Array& logData,
                                              std::shared_ptr<ReportingSessionConnectivityInterface> helper,
                                              std::unique_ptr<MemoryShare> memory, SystemLog& log) {
  const auto fail = [&log](std::string_view why) {
    log.error("DashboardBackend(uploadLogData): Error uploading log data array ({})", why);
    return std::nullopt;
  };
  if (!postURL) {
    log.error("DashboardBackend(uploadLogData): Post URL for log data array is nil");
    return std::nullopt;
  }
  constexpr std::string_view kNoMemory = "what is under way leaves no memory for it";
  // While it is made, an archive takes about what its values do.
  if (!resize(*memory, static_cast<uint32_t>(estimatedObjectSize(logData)))) return fail(kNoMemory);
  std::optional<std::string> archive = archiveObject(logData);
  if (!archive) {
    log.error("DashboardBackend(uploadLogData): Failed to serialize log data array for upload");
    return std::nullopt;
  }
  if (helper == nullptr) return fail("there is no connectivity helper");
  if (!resize(*memory, archive->size())) return fail(kNoMemory);
  URLRequest request;
  request.url = *postURL;
  request.method = "POST";
  request.transferClass = TransferClass::kUpload;
  request.headers.emplace_back("Content-Type", "application/octet-stream");
  request.holder = memory->holder();
  const auto counted =
      std::make_shared<CountedArchive>(CountedArchive{std::move(memory), std::move(*archive)});
  request.body = {counted, &counted->bytes};
  PostOutcome outcome = postAndWait(std::move(helper), std::move(request));
  if (outcome.error) return fail(outcome.errorDescription());
  if (outcome.receivedData.empty()) return fail("the answer has no body");
  if (!isValidUTF8(outcome.receivedData)) return fail("the answer is not UTF-8");
  log.debug("DashboardBackend(uploadLogData): Log data uploaded to {}", outcome.receivedData);
  return std::move(outcome.receivedData);
}

}  // namespace zun
