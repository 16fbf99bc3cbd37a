#include "linux/http/CurlURLSessionTask.h"

#include <curl/curl.h>

#include <algorithm>

#include "linux/files/LinuxFileManager.h"
#include "linux/http/CurlURLSessionLoop.h"
#include "values/UTF8.h"

namespace zun {
namespace {

struct URLFreeing {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::string part(CURLU* url, CURLUPart which) {
  char* text = nullptr;
  if (curl_url_get(url, which, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) return {};
  std::string copy(text);
  curl_free(text);
  return copy;
}

bool isLoopbackHost(std::string host) {
  std::transform(host.begin(), host.end(), host.begin(), lowerCasedASCII);
  if (host.ends_with('.')) host.pop_back();
  const bool isAddress = host.find_first_not_of("0123456789.") == std::string::npos;
  return host == "localhost" || host.ends_with(".localhost") || host == "[::1]" ||
         (isAddress && host.starts_with("127."));
}

bool isToken(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return c > ' ' && c < 0x7f &&
           std::string_view("\"(),/:;<=>?@[\\]{}").find(static_cast<char>(c)) == std::string_view::npos;
  });
}

TransferLane laneOf(const URLRequest& request) {
  if (request.transferClass == TransferClass::kUpload) return TransferLane::kUploads;
  const bool isOwn = request.holder.isDaemon() && request.method == "GET";
  return isOwn ? TransferLane::kOwn : TransferLane::kPosts;
}

/// What is wrong with a request whatever the network.
std::optional<Error> defectOf(const URLRequest& request) {
  if (!isToken(request.method)) return urlError(URLSessionError::kBadRequest, "the method is no token");
  for (const auto& [name, value] : request.headers) {
    if (!isToken(name)) return urlError(URLSessionError::kBadRequest, "a header's name is no token");
    if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos)
      return urlError(URLSessionError::kBadRequest, "the header " + name + " holds a line break");
  }
  return std::nullopt;
}

}  // namespace

std::optional<CurlTarget> CurlTarget::parse(const std::string& url) {
  const std::unique_ptr<CURLU, URLFreeing> parsed(curl_url());
  if (parsed == nullptr || url.find('\0') != std::string::npos ||
      curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
    return std::nullopt;
  const std::string scheme = part(parsed.get(), CURLUPART_SCHEME);
  const std::string host = part(parsed.get(), CURLUPART_HOST);
  if ((scheme != "http" && scheme != "https") || host.empty()) return std::nullopt;
  return CurlTarget{scheme + "://" + host + ":" + part(parsed.get(), CURLUPART_PORT), isLoopbackHost(host)};
}

CurlURLSession::CurlURLSession(URLSessionConfiguration configuration,
                               std::shared_ptr<URLSessionDelegate> delegate,
                               std::shared_ptr<SerialQueue> delegateQueue,
                               std::shared_ptr<CurlURLSessionLoop> loop)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      delegateQueue_(std::move(delegateQueue)),
      loop_(std::move(loop)) {}

void CurlURLSession::setSessionDescription(std::string description) {
  const MutexLock lock(mutex_);
  description_ = std::move(description);
}

std::string CurlURLSession::sessionDescription() const {
  const MutexLock lock(mutex_);
  return description_;
}

Result<std::shared_ptr<URLSessionTask>, Error> CurlURLSession::dataTaskWithRequest(URLRequest request) {
  return makeTask(std::move(request), std::nullopt);
}

Result<std::shared_ptr<URLSessionTask>, Error> CurlURLSession::uploadTaskWithRequest(
    URLRequest request, const std::string& filePath) {
  auto bytes =
      LinuxFileManager({}, {}).readFile(filePath, static_cast<uint64_t>(loop_->options().maxUploadFileBytes));
  if (!bytes) {
    return makeTask(std::move(request),
                    urlError(URLSessionError::kCannotReadFile, bytes.error().description));
  }
  request.body = std::make_shared<const std::string>(std::move(*bytes));
  return makeTask(std::move(request), std::nullopt);
}

Result<std::shared_ptr<URLSessionTask>, Error> CurlURLSession::makeTask(URLRequest request,
                                                                        std::optional<Error> defect) {
  {
    const MutexLock lock(mutex_);
    if (isInvalidated_)
      return Result<std::shared_ptr<URLSessionTask>, Error>::failure(
          urlError(URLSessionError::kCancelled, "Task created in a session that has been invalidated"));
    ++tasks_;
  }
  return std::shared_ptr<URLSessionTask>(
      std::make_shared<CurlURLSessionTask>(shared_from_this(), std::move(request), std::move(defect)));
}

void CurlURLSession::invalidate(std::optional<Error> reason) {
  {
    const MutexLock lock(mutex_);
    if (isInvalidated_) return;
    isInvalidated_ = true;
    if (tasks_ > 0) {
      reason_ = std::move(reason);
      return;
    }
  }
  becomeInvalid(std::move(reason));
}

void CurlURLSession::taskEnded() {
  std::optional<Error> reason;
  {
    const MutexLock lock(mutex_);
    if (--tasks_ > 0 || !isInvalidated_) return;
    reason = std::move(reason_);
  }
  becomeInvalid(std::move(reason));
}

void CurlURLSession::becomeInvalid(std::optional<Error> reason) {
  delegateQueue_->async([self = shared_from_this(), reason = std::move(reason)] {
    const std::shared_ptr<URLSessionDelegate> delegate = std::move(self->delegate_);
    if (delegate) delegate->didBecomeInvalidWithError(*self, reason);
  });
}

void CurlURLSession::deliver(std::shared_ptr<CurlURLSessionTask> task, CurlDelivery delivery) {
  delegateQueue_->async(
      [self = shared_from_this(), task = std::move(task), delivery = std::move(delivery)]() mutable {
        self->tell(*task, std::move(delivery));
      });
}

void CurlURLSession::tell(CurlURLSessionTask& task, CurlDelivery delivery) {
  const std::shared_ptr<URLSessionDelegate> delegate = delegate_;
  if (delegate == nullptr) return;
  if (delivery.bytesSent) delegate->didSendBodyData(*this, task, *delivery.bytesSent, task.bodyBytes());
  if (delivery.response) delegate->didReceiveResponse(*this, task, *delivery.response);
  if (!delivery.data.empty()) delegate->didReceiveData(*this, task, std::move(delivery.data));
  if (delivery.end) delegate->didCompleteWithError(*this, task, delivery.end->response, delivery.end->error);
}

CurlURLSessionTask::CurlURLSessionTask(std::shared_ptr<CurlURLSession> session, URLRequest request,
                                       std::optional<Error> defect)
    : session_(std::move(session)),
      request_(std::move(request)),
      lane_(laneOf(request_)),
      defect_(std::move(defect)) {
  if (!defect_) defect_ = defectOf(request_);
  if (defect_) return;
  if (auto target = CurlTarget::parse(request_.url)) {
    target_ = std::move(*target);
  } else {
    defect_ = urlError(URLSessionError::kBadURL, "not an http or https URL: " + request_.url);
  }
}

CurlURLSessionTask::~CurlURLSessionTask() {
  if (!isResumed_) session_->taskEnded();
}

void CurlURLSessionTask::setTaskDescription(std::string description) {
  const MutexLock lock(mutex_);
  description_ = std::move(description);
}

std::string CurlURLSessionTask::taskDescription() const {
  const MutexLock lock(mutex_);
  return description_;
}

void CurlURLSessionTask::resume() {
  if (isResumed_.exchange(true)) return;
  if (defect_) {
    fail(*defect_);
    return;
  }
  session_->loop().submit(shared_from_this());
  if (request_.cancellation == nullptr) return;
  request_.cancellation->onCancel([reference = weak_from_this()] {
    if (const auto task = reference.lock()) task->session_->loop().endCancelled();
  });
}

void CurlURLSessionTask::deliver(CurlDelivery delivery) {
  session_->deliver(shared_from_this(), std::move(delivery));
}

void CurlURLSessionTask::complete(CurlDelivery delivery) {
  session_->deliver(shared_from_this(), std::move(delivery));
  session_->taskEnded();
}

void CurlURLSessionTask::fail(Error error) {
  CurlDelivery delivery;
  delivery.end = CurlDelivery::End{std::nullopt, std::move(error)};
  complete(std::move(delivery));
}

}  // namespace zun
