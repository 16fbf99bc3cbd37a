#include <algorithm>
#include <utility>

#include "platform/FileManager.h"
#include "session/ReportingdSession.h"
#include "util/LoggedPath.h"
#include "values/URLText.h"
#include "values/UTF8.h"

namespace zun {

namespace {

/// Nothing in it ends an entry of the message log, or makes one long.
std::string oneLine(std::string_view url) {
  std::string out;
  for (const char character : url) {
    const bool isControl = static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
    out += isControl ? percentEncoded({&character, 1}, "") : std::string(1, character);
  }
  if (out.size() <= kMaximumLoggedPathBytes) return out;
  const size_t escape = out.find('%', kMaximumLoggedPathBytes - 2);  // which would be cut
  cutLongText(out, std::min(escape, kMaximumLoggedPathBytes));
  return out;
}

}  // namespace

// Every backend is asked, even when an earlier one has done it.

void ReportingdSession::uploadFileAtPath(const std::string& fileURL, const std::string& extensionToken,
                                         UploadFileReply completionHandler) {
  log().debug("uploadFileAtPath: Uploading file for session {}", sessionID());
  uploadFileWithURL(fileURL, extensionToken, std::move(completionHandler));
}

void ReportingdSession::uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                                          UploadFileReply completionHandler) {
  const std::optional<std::string> path = pathOfFileURL(fileURL);
  bool succeeded = false;
  if (path && hasBackends()) {
    const SandboxExtensionToken token{extensionToken, connection_->sandboxExtensions(),
                                      [this] { return connection_->isWanted(); }};
    for (const auto& entry : backends_->entries) succeeded |= entry.backend->uploadFileAtPath(*path, token);
  }
  const std::string pathForLog = loggedPath(path ? *path : fileURL);
  if (succeeded) {
    log().debug("uploadFileWithURL: File upload successful for {}", pathForLog);
  } else {
    log().error("uploadFileWithURL: File upload failed for {}", pathForLog);
  }
  services_.messageLog.writeToLogFile(fmt::format("[uploadFileWithURL] Upload {} for file {}",
                                                  succeeded ? "succeeded" : "failed", oneLine(fileURL)));
  if (completionHandler) completionHandler(succeeded);
}

void ReportingdSession::uploadLogData(const Array& logData, UploadLogReply completionHandler) {
  bool succeeded = false;
  if (hasBackends()) {
    for (const auto& entry : backends_->entries) succeeded |= entry.backend->uploadLogData(logData);
  }
  if (succeeded) {
    log().debug("uploadLogData: Log data array upload successful");
  } else {
    log().error("uploadLogData: Log data array upload failed");
  }
  if (completionHandler) completionHandler(succeeded, std::nullopt);
}

}  // namespace zun
