#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Mutex.h"
#include "platform/URLSession.h"

namespace zun {

class CurlURLSessionLoop;
class CurlURLSessionTask;

/// What a delegate is to hear next about one task, in the order of the fields.
struct CurlDelivery {
  struct End {
    std::optional<URLResponse> response;
    std::optional<Error> error;
  };

  std::optional<int64_t> bytesSent;
  std::optional<URLResponse> response;
  std::string data;  // empty: none
  std::optional<End> end;

  [[nodiscard]] bool isEmpty() const { return !bytesSent && !response && data.empty() && !end; }
};

/// Counts its tasks, from their creation, and says that it has become invalid when it
/// was invalidated and none is left.
///
/// Threading: any thread; the delegate is touched on its queue only.
/// Ownership: owns the delegate until it has become invalid. Tasks own the session.
class CurlURLSession final : public URLSession, public std::enable_shared_from_this<CurlURLSession> {
 public:
  CurlURLSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
                 std::shared_ptr<SerialQueue> delegateQueue, std::shared_ptr<CurlURLSessionLoop> loop);

  void setSessionDescription(std::string description) override;
  [[nodiscard]] std::string sessionDescription() const override;
  Result<std::shared_ptr<URLSessionTask>, Error> dataTaskWithRequest(URLRequest request) override;
  Result<std::shared_ptr<URLSessionTask>, Error> uploadTaskWithRequest(URLRequest request,
                                                                       const std::string& filePath) override;
  void finishTasksAndInvalidate() override { invalidate(std::nullopt); }

  /// As `finishTasksAndInvalidate`; the delegate hears why.
  void invalidate(std::optional<Error> reason);
  /// Queues it for the delegate.
  void deliver(std::shared_ptr<CurlURLSessionTask> task, CurlDelivery delivery);
  /// One task fewer.
  void taskEnded();

  [[nodiscard]] const URLSessionConfiguration& configuration() const { return configuration_; }
  [[nodiscard]] CurlURLSessionLoop& loop() const { return *loop_; }

 private:
  Result<std::shared_ptr<URLSessionTask>, Error> makeTask(URLRequest request, std::optional<Error> defect);
  void tell(CurlURLSessionTask& task, CurlDelivery delivery);
  void becomeInvalid(std::optional<Error> reason);

  const URLSessionConfiguration configuration_;
  std::shared_ptr<URLSessionDelegate> delegate_;  // delegate queue only
  const std::shared_ptr<SerialQueue> delegateQueue_;
  const std::shared_ptr<CurlURLSessionLoop> loop_;

  mutable Mutex mutex_;
  std::string description_ GUARDED_BY(mutex_);
  size_t tasks_ GUARDED_BY(mutex_) = 0;
  bool isInvalidated_ GUARDED_BY(mutex_) = false;
  std::optional<Error> reason_ GUARDED_BY(mutex_);
};

/// Who a transfer competes with for connections and room, in the order of who goes first.
enum class TransferLane {
  kOwn,  // what the daemon itself asks for: storebags
  kPosts,
  kUploads,
};
inline constexpr size_t kTransferLanes = 3;

/// Where a request goes, as far as the service has to know.
struct CurlTarget {
  std::string host;  // scheme, name and port: what connections are counted by
  bool isLoopback = false;

  /// None for what is not an http or https URL.
  static std::optional<CurlTarget> parse(const std::string& url);
};

/// Threading: any thread; what is said to be the loop's is the transfer thread's.
class CurlURLSessionTask final : public URLSessionTask,
                                 public std::enable_shared_from_this<CurlURLSessionTask> {
 public:
  /// `defect`: what the task completes with once it is resumed.
  CurlURLSessionTask(std::shared_ptr<CurlURLSession> session, URLRequest request,
                     std::optional<Error> defect);
  ~CurlURLSessionTask() override;
  CurlURLSessionTask(const CurlURLSessionTask&) = delete;
  CurlURLSessionTask& operator=(const CurlURLSessionTask&) = delete;

  void setTaskDescription(std::string description) override;
  [[nodiscard]] std::string taskDescription() const override;
  void resume() override;

  [[nodiscard]] const URLRequest& request() const { return request_; }
  [[nodiscard]] const CurlTarget& target() const { return target_; }
  [[nodiscard]] const URLSessionConfiguration& configuration() const { return session_->configuration(); }
  [[nodiscard]] TransferLane lane() const { return lane_; }
  [[nodiscard]] int64_t bodyBytes() const {
    return request_.body ? static_cast<int64_t>(request_.body->size()) : 0;
  }

  void deliver(CurlDelivery delivery);
  /// The last delivery. Once.
  void complete(CurlDelivery delivery);
  void fail(Error error);

  // The loop's.
  using TimePoint = std::chrono::steady_clock::time_point;
  TimePoint resourceDeadline;                  // waiting included
  TimePoint wholeDeadline = TimePoint::max();  // none while the task waits
  [[nodiscard]] TimePoint deadline() const { return std::min(resourceDeadline, wholeDeadline); }

 private:
  const std::shared_ptr<CurlURLSession> session_;
  const URLRequest request_;
  const TransferLane lane_;
  CurlTarget target_;
  std::optional<Error> defect_;
  std::atomic<bool> isResumed_{false};

  mutable Mutex mutex_;
  std::string description_ GUARDED_BY(mutex_);
};

inline Error urlError(URLSessionError code, std::string description) {
  return {kURLErrorDomain, static_cast<int32_t>(code), std::move(description)};
}

}  // namespace zun
