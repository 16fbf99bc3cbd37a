#pragma once

#include <memory>

#include "platform/Mutex.h"
#include "platform/URLSession.h"

namespace zun {

/// Stands between a URL session and its delegate. A URL session keeps its delegate
/// until it is invalid; what only its last user's letting go makes invalid would so
/// live for ever. The link therefore holds the delegate weakly, and strongly only
/// while there is something that the delegate has to hear: running tasks, or the end
/// of a session that was told to finish.
///
///   weak ◀──hold / letGo──▶ strong ──session became invalid──▶ released for good
///
/// Threading: any thread. Ownership: the URL session and the delegate hold it.
class URLSessionDelegateLink final : public URLSessionDelegate {
 public:
  explicit URLSessionDelegateLink(std::weak_ptr<URLSessionDelegate> target) : target_(std::move(target)) {}

  /// Keeps the delegate alive until `letGo` or the session's end. After that end: nothing.
  void hold(std::shared_ptr<URLSessionDelegate> target);
  void letGo();

  void didReceiveResponse(URLSession& session, URLSessionTask& task, const URLResponse& response) override;
  void didReceiveData(URLSession& session, URLSessionTask& task, std::string bytes) override;
  void didSendBodyData(URLSession& session, URLSessionTask& task, int64_t totalBytesSent,
                       int64_t totalBytesExpected) override;
  void didCompleteWithError(URLSession& session, URLSessionTask& task,
                            const std::optional<URLResponse>& response,
                            const std::optional<Error>& error) override;
  void didBecomeDownloadTask(URLSession& session) override;
  void didBecomeInvalidWithError(URLSession& session, const std::optional<Error>& error) override;

 private:
  const std::weak_ptr<URLSessionDelegate> target_;
  Mutex mutex_;
  std::shared_ptr<URLSessionDelegate> held_ GUARDED_BY(mutex_);
  bool isOver_ GUARDED_BY(mutex_) = false;
};

}  // namespace zun
