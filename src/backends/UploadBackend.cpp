#include "backends/UploadBackend.h"

#include <utility>

#include "backends/UploadBody.h"
#include "connectivity/PostAndWait.h"
#include "util/LoggedPath.h"
#include "values/URLText.h"
#include "values/UTF8.h"

namespace zun {

namespace {

constexpr std::string_view kDescription = "Vidora AFRC log";
constexpr std::string_view kAccepted = "success";

/// Of a file's path: it does not end with a slash.
std::string_view lastPathComponent(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

std::shared_ptr<UploadBackend> UploadBackend::initWithName(const ReportingServices& services,
                                                           std::string_view name, const Value& profile,
                                                           const std::optional<std::string>& productFamily) {
  const Dictionary* const section = profile.dictionary();
  const auto postURL = section == nullptr ? std::nullopt : (*section)["post_url"].string();
  if (!postURL) {
    services.platform.log.error("UploadBackend(initWithName): can't resolve upload post URL.");
    return nullptr;
  }
  return std::shared_ptr<UploadBackend>(
      new UploadBackend(services, std::string(name), *section, productFamily.value_or(""), *postURL));
}

UploadBackend::UploadBackend(const ReportingServices& services, std::string name, Dictionary profile,
                             const std::string& productFamily, std::string_view uploadURL)
    : ZunReportingBackend(services, std::move(name), std::move(profile), productFamily),
      uploadURL_(uploadURL) {
  if (const auto url = profile_["display_url"].string()) displayURL_ = std::string(*url);
}

std::optional<std::string> UploadBackend::uploadURL() const {
  const MutexLock lock(uploadMutex_);
  return uploadURL_;
}

void UploadBackend::setUploadURL(std::optional<std::string> url) {
  const MutexLock lock(uploadMutex_);
  uploadURL_ = std::move(url);
}

bool UploadBackend::uploadFileAtPath(const std::string& path, const SandboxExtensionToken& extensionToken) {
  log().debug("UploadBackend(uploadFileAtPath): Uploading file {}", loggedPath(path));
  const std::optional<std::string> url = uploadURL();
  if (!url) return false;
  const auto file = regularFileAtPath(path, extensionToken);
  if (file == nullptr) {
    log().error("UploadBackend(uploadFileAtPath): Only upload a regular file.");
    return false;
  }
  auto body = bodyOfFile(path, *file, extensionToken);
  if (body == nullptr) return false;
  std::optional<URLRequest> request = requestForFile(*url, path);
  if (!request) {
    log().error("UploadBackend(uploadFileAtPath): Unable to create URL request");
    return false;
  }
  request->body = std::move(body);
  if (!post(*url, std::move(*request))) return true;
  if (const auto error = file->removeFile()) {
    log().note("UploadBackend(uploadFileAtPath): The uploaded file {} stays: {}", loggedPath(path),
               error->description);
  }
  return true;
}

std::shared_ptr<const std::string> UploadBackend::bodyOfFile(
    const std::string& path, const SandboxExtension& file,
    const SandboxExtensionToken& extensionToken) const {
  const auto turn = services_.compressions->wait(services_.program, extensionToken.isWanted);
  if (!turn) {
    log().note("UploadBackend(uploadFileAtPath): Nobody waits for {} any more", loggedPath(path));
    return nullptr;
  }
  return compressedContents(
      file, {services_.uploadMemory, services_.holder, extensionToken.isWanted, kMaximumUploadBytes}, log());
}

std::unique_ptr<SandboxExtension> UploadBackend::regularFileAtPath(
    const std::string& path, const SandboxExtensionToken& extensionToken) const {
  auto file = extensionToken.consume(path);
  if (!file) {
    log().note("UploadBackend(uploadFileAtPath): The extension token gives no access to {}: {}",
               loggedPath(path), file.error().description);
    return nullptr;
  }
  return (*file)->isRegularFile() ? std::move(*file) : nullptr;
}

std::optional<URLRequest> UploadBackend::requestForFile(const std::string& uploadURL,
                                                        std::string_view path) const {
  const std::string fileName = std::string(lastPathComponent(path)) + ".gz";
  URLRequest request;
  request.url =
      fmt::format("{}?uuid={}&sequence={}&description={}%20(Uploaded%20by%20Qel)&filename={}&raw=true",
                  uploadURL, udid_.value_or("(null)"), sessionID_, percentEncodedForQuery(kDescription),
                  percentEncodedForQuery(fileName));
  if (!isHTTPURL(request.url)) return std::nullopt;
  request.method = "POST";
  request.holder = services_.holder;
  request.transferClass = TransferClass::kUpload;
  request.headers.emplace_back("Content-Type", "application/octet-stream");
  request.headers.emplace_back("Content-Encoding", "gzip");
  return request;
}

bool UploadBackend::post(const std::string& uploadURL, URLRequest request) const {
  auto helper = reportingSessionConnectivityDelegate_.lock();
  if (helper == nullptr) return false;
  const PostOutcome outcome = postAndWait(std::move(helper), std::move(request));
  // An answer that broke off may say anything.
  if (!outcome.response || outcome.error) {
    log().error("UploadBackend(uploadFileAtPath): post {}", outcome.errorDescription());
    return false;
  }
  const bool isText = isValidUTF8(outcome.receivedData);
  const std::string_view text = isText ? std::string_view(outcome.receivedData) : "(null)";
  log().debug("UploadBackend(uploadFileAtPath): sending to |{}|, Json output: {}", uploadURL, text);
  return text.find(kAccepted) != std::string_view::npos;
}

}  // namespace zun
