#include "connectivity/URLSessionDelegateLink.h"

#include <utility>

namespace zun {

void URLSessionDelegateLink::hold(std::shared_ptr<URLSessionDelegate> target) {
  const MutexLock lock(mutex_);
  if (!isOver_) held_.swap(target);
}

void URLSessionDelegateLink::letGo() {
  // Released after the lock: this may be the last reference.
  std::shared_ptr<URLSessionDelegate> released;
  const MutexLock lock(mutex_);
  held_.swap(released);
}

void URLSessionDelegateLink::didReceiveResponse(URLSession& session, URLSessionTask& task,
                                                const URLResponse& response) {
  if (const auto target = target_.lock()) target->didReceiveResponse(session, task, response);
}

void URLSessionDelegateLink::didReceiveData(URLSession& session, URLSessionTask& task, std::string bytes) {
  if (const auto target = target_.lock()) target->didReceiveData(session, task, std::move(bytes));
}

void URLSessionDelegateLink::didSendBodyData(URLSession& session, URLSessionTask& task,
                                             int64_t totalBytesSent, int64_t totalBytesExpected) {
  if (const auto target = target_.lock())
    target->didSendBodyData(session, task, totalBytesSent, totalBytesExpected);
}

void URLSessionDelegateLink::didCompleteWithError(URLSession& session, URLSessionTask& task,
                                                  const std::optional<URLResponse>& response,
                                                  const std::optional<Error>& error) {
  if (const auto target = target_.lock()) target->didCompleteWithError(session, task, response, error);
}

void URLSessionDelegateLink::didBecomeDownloadTask(URLSession& session) {
  if (const auto target = target_.lock()) target->didBecomeDownloadTask(session);
}

void URLSessionDelegateLink::didBecomeInvalidWithError(URLSession& session,
                                                       const std::optional<Error>& error) {
  if (const auto target = target_.lock()) target->didBecomeInvalidWithError(session, error);
  std::shared_ptr<URLSessionDelegate> released;
  const MutexLock lock(mutex_);
  isOver_ = true;
  held_.swap(released);
}

}  // namespace zun
