#include "connectivity/ReportingSessionConnectivityHelper.h"

#include <utility>

#include "connectivity/ConnectivityHelperTask.h"
#include "connectivity/URLSessionDelegateLink.h"
#include "values/Check.h"
#include "values/UUID.h"

namespace zun {

namespace {

constexpr const char* kSourceApplicationIdentifier = "com.vantix.system.diagnostics";

std::string describe(const std::optional<Error>& error) {
  return error ? error->description : "(null)";
}

std::string describe(const std::optional<URLResponse>& response) {
  return response ? response->description() : "(null)";
}

}  // namespace

std::optional<URLSessionConfiguration> ReportingSessionConnectivityHelper::privateURLSessionConfigWithMode(
    ConnectionMode mode, RandomSource& random) {
  URLSessionConfiguration configuration;
  switch (mode) {
    case kBackgroundUploadMode:
      configuration.kind = URLSessionConfiguration::Kind::kBackground;
      configuration.identifier = uuidString(random.uuidBytes());
      configuration.networkServiceType = URLSessionConfiguration::NetworkServiceType::kBackground;
      configuration.discretionary = true;
      configuration.requiresPowerPluggedIn = true;
      break;
    case kBackgroundGETMode:
      configuration.kind = URLSessionConfiguration::Kind::kBackground;
      configuration.identifier = uuidString(random.uuidBytes());
      configuration.discretionary = true;
      break;
    case kPOSTMode:
    case kGETMode: break;
    default: return std::nullopt;
  }
  configuration.sourceApplicationIdentifier = kSourceApplicationIdentifier;
  configuration.waitsForConnectivity = true;
  return configuration;
}

// MARK: - Requests

void ReportingSessionConnectivityHelper::postURLRequestWithCompletionHandler(
    URLRequest request, ConnectivityCompletion completion) {
  auto post = [self = shared_from_this(), request = std::move(request),
               completion = std::move(completion)]() mutable {
    self->postOnStateQueue(std::move(request), std::move(completion));
  };
  // Without a file to be written it is done before another thread has woken up.
  if (mode_ == kPOSTMode) return stateQueue_->runOrQueue(std::move(post));
  stateQueue_->async(std::move(post));
}

void ReportingSessionConnectivityHelper::getURLRequestWithCompletionHandler(
    URLRequest request, ConnectivityCompletion completion) {
  stateQueue_->async([self = shared_from_this(), request = std::move(request),
                      completion = std::move(completion)]() mutable {
    self->getOnStateQueue(std::move(request), std::move(completion));
  });
}

void ReportingSessionConnectivityHelper::postOnStateQueue(URLRequest request,
                                                          ConnectivityCompletion completion) {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  if (!isActive_) return;
  std::optional<MadeTask> made;
  if (mode_ == kPOSTMode) {
    made = privateURLSession()->dataTaskWithRequest(std::move(request));
  } else if (mode_ == kBackgroundUploadMode) {
    made = makeUploadTask(std::move(request));
  } else {
    log_.error("postURLRequestWithCompletionHandler: wrong mode for POST operation detected {}", mode_);
  }
  if (!made) return;
  if (!*made) {
    log_.error(
        "postURLRequestWithCompletionHandler: "
        "underlying Wirepath has been invalidated with error {}. Ignoring POST request.",
        made->error().description);
    return;
  }
  const std::shared_ptr<URLSessionTask>& task = **made;
  if (!task) return;
  createHelperForTask(*task, std::move(completion));
  task->resume();
}

void ReportingSessionConnectivityHelper::getOnStateQueue(URLRequest request,
                                                         ConnectivityCompletion completion) {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  if (!isActive_) return;
  if (mode_ != kGETMode && mode_ != kBackgroundGETMode) {
    log_.error("getURLRequestWithCompletionHandler: wrong mode for GET operation detected {}", mode_);
    return;
  }
  const MadeTask made = privateURLSession()->dataTaskWithRequest(std::move(request));
  if (!made) {
    log_.error(
        "getURLRequestWithCompletionHandler: "
        "underlying Wirepath has been invalidated with error {}. Ignoring GET request.",
        made.error().description);
    return;
  }
  const std::shared_ptr<URLSessionTask>& task = *made;
  if (!task) return;
  createHelperForTask(*task, std::move(completion));
  task->resume();
}

std::optional<ReportingSessionConnectivityHelper::MadeTask>
ReportingSessionConnectivityHelper::makeUploadTask(URLRequest request) {
  const std::string container = containers_.composeUniqueContainerURL();
  const std::optional<std::string> path = pathOfFileURL(container);
  if (!path || !request.body) return std::nullopt;
  if (!containers_.writeContainerAtURL(container, *request.body)) return std::nullopt;
  request.body = nullptr;
  MadeTask made = privateURLSession()->uploadTaskWithRequest(std::move(request), *path);
  // The task has the bytes as they were when it was made.
  containers_.deleteContainerAtURL(container);
  return made;
}

void ReportingSessionConnectivityHelper::createHelperForTask(URLSessionTask& task,
                                                             ConnectivityCompletion completion) {
  const std::string taskID = ConnectivityTaskCounter::ofProcess().nextTaskID();
  task.setTaskDescription(taskID);
  tasks_[taskID] = std::make_unique<ConnectivityHelperTask>(taskID, std::move(completion), log_);
  delegateLink_->hold(shared_from_this());
  log_.debug("createHelperForTask: created helperTask for task <{}>", taskID);
}

// MARK: - What the URL session tells

void ReportingSessionConnectivityHelper::didReceiveResponse(URLSession& /*session*/, URLSessionTask& task,
                                                            const URLResponse& /*response*/) {
  log_.debug("didReceiveResponse: for <session>:<task> <{}>:<{}>", helperID(), task.taskDescription());
}

void ReportingSessionConnectivityHelper::didReceiveData(URLSession& /*session*/, URLSessionTask& task,
                                                        std::string bytes) {
  stateQueue_->async(
      [self = shared_from_this(), taskID = task.taskDescription(), bytes = std::move(bytes)]() mutable {
        self->log_.debug("didReceiveData: received {} bytes for <session>:<task> <{}>:<{}>", bytes.size(),
                         self->helperID(), taskID);
        const auto found = self->tasks_.find(taskID);
        if (found != self->tasks_.end()) found->second->appendReceivedData(std::move(bytes));
      });
}

void ReportingSessionConnectivityHelper::didSendBodyData(URLSession& /*session*/, URLSessionTask& task,
                                                         int64_t totalBytesSent, int64_t totalBytesExpected) {
  log_.debug("didSendBodyData: for <session>:<task> <{}>:<{}>: Sent {} out of {}", helperID(),
             task.taskDescription(), totalBytesSent, totalBytesExpected);
}

void ReportingSessionConnectivityHelper::didCompleteWithError(URLSession& /*session*/, URLSessionTask& task,
                                                              const std::optional<URLResponse>& response,
                                                              const std::optional<Error>& error) {
  stateQueue_->async([self = shared_from_this(), taskID = task.taskDescription(), response, error] {
    self->finishTask(taskID, response, error);
  });
}

void ReportingSessionConnectivityHelper::finishTask(const std::string& taskID,
                                                    const std::optional<URLResponse>& response,
                                                    const std::optional<Error>& error) {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  log_.debug("didCompleteWithError: for <session>:<task> <{}>:<{}> with response {}, error {}", helperID(),
             taskID, describe(response), describe(error));
  const auto found = tasks_.find(taskID);
  if (found == tasks_.end()) return;
  found->second->complete(response, error);
  tasks_.erase(found);
  // An invalidated helper still has to hear of its URL session's end.
  if (tasks_.empty() && isActive_) delegateLink_->letGo();
}

void ReportingSessionConnectivityHelper::didBecomeDownloadTask(URLSession& /*session*/) {
  log_.error("didBecomeDownloadTask: session <{}> has become downoad task. SHOULD NEVER HAPPEN!!!",
             helperID());
}

void ReportingSessionConnectivityHelper::didBecomeInvalidWithError(URLSession& /*session*/,
                                                                   const std::optional<Error>& error) {
  stateQueue_->async([self = shared_from_this(), error] {
    self->log_.debug("didBecomeInvalidWithError: release {} Quorx transactions for session {}",
                     static_cast<int32_t>(self->totalSessionsServedCount()), self->helperID());
    self->releaseAllQuorxTransactions();
    self->log_.debug("didBecomeInvalidWithError: session <{}> invalidated with error {}", self->helperID(),
                     describe(error));
  });
}

}  // namespace zun
