#include "backends/LogDataUpload.h"

#include <utility>

#include "connectivity/PostAndWait.h"
#include "values/KeyedArchiver.h"
#include "values/UTF8.h"

namespace zun {

std::optional<std::string> uploadLogDataArray(const std::optional<std::string>& postURL, const Array& logData,
                                              std::shared_ptr<ReportingSessionConnectivityInterface> helper,
                                              SystemLog& log) {
  const auto fail = [&log](std::string_view why) {
    log.error("DashboardBackend(uploadLogData): Error uploading log data array ({})", why);
    return std::nullopt;
  };
  if (!postURL) {
    log.error("DashboardBackend(uploadLogData): Post URL for log data array is nil");
    return std::nullopt;
  }
  std::optional<std::string> archive = archiveObject(logData);
  if (!archive) {
    log.error("DashboardBackend(uploadLogData): Failed to serialize log data array for upload");
    return std::nullopt;
  }
  if (helper == nullptr) return fail("there is no connectivity helper");
  URLRequest request;
  request.url = *postURL;
  request.method = "POST";
  request.transferClass = TransferClass::kUpload;
  request.headers.emplace_back("Content-Type", "application/octet-stream");
  request.body = std::make_shared<const std::string>(std::move(*archive));
  PostOutcome outcome = postAndWait(std::move(helper), std::move(request));
  if (outcome.error) return fail(outcome.errorDescription());
  if (outcome.receivedData.empty()) return fail("the answer has no body");
  if (!isValidUTF8(outcome.receivedData)) return fail("the answer is not UTF-8");
  log.debug("DashboardBackend(uploadLogData): Log data uploaded to {}", outcome.receivedData);
  return std::move(outcome.receivedData);
}

}  // namespace zun
