#include "linux/http/CurlURLSession.h"

#include <algorithm>
#include <utility>

#include "linux/http/CurlURLSessionLoop.h"
#include "linux/http/CurlURLSessionTask.h"

namespace zun {

CurlURLSessionService::CurlURLSessionService(CurlOptions options, SystemLog& log)
    : loop_(std::make_shared<CurlURLSessionLoop>(std::move(options), log)) {}

CurlURLSessionService::~CurlURLSessionService() {
  loop_->setIdleHandler(nullptr);
  loop_->stop();
  std::vector<std::weak_ptr<CurlURLSession>> sessions;
  {
    const MutexLock lock(mutex_);
    sessions.swap(sessions_);
  }
  // A delegate that owns its session would otherwise keep it, and itself, for ever.
  for (const auto& reference : sessions) {
    if (const auto session = reference.lock())
      session->invalidate(urlError(URLSessionError::kCancelled, "the URL-session service has ended"));
  }
}

std::shared_ptr<URLSession> CurlURLSessionService::makeSession(const URLSessionConfiguration& configuration,
                                                               std::shared_ptr<URLSessionDelegate> delegate,
                                                               std::shared_ptr<SerialQueue> delegateQueue) {
  auto session =
      std::make_shared<CurlURLSession>(configuration, std::move(delegate), std::move(delegateQueue), loop_);
  const MutexLock lock(mutex_);
  if (sessions_.size() >= pruneAt_) {
    std::erase_if(sessions_, [](const auto& reference) { return reference.expired(); });
    pruneAt_ = std::max<size_t>(64, sessions_.size() * 2);
  }
  sessions_.push_back(session);
  return session;
}

size_t CurlURLSessionService::transfersInFlight() const {
  return loop_->transfersInFlight();
}

bool CurlURLSessionService::waitUntilIdle(std::chrono::milliseconds timeout) const {
  return loop_->waitUntilIdle(timeout);
}

void CurlURLSessionService::setIdleHandler(UniqueFunction<void()> handler) {
  loop_->setIdleHandler(std::move(handler));
}

std::shared_ptr<const Heartbeat> CurlURLSessionService::heartbeat() const {
  return loop_->heartbeat();
}

}  // namespace zun
