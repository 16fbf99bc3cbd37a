#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "connectivity/ConnectionMode.h"
#include "connectivity/ConnectivityReleaseTimer.h"
#include "connectivity/QuorxTransactionHolder.h"
#include "connectivity/ReportingSessionConnectivityInterface.h"
#include "connectivity/StorageContainers.h"
#include "platform/Mutex.h"
#include "platform/PlatformServices.h"
#include "platform/URLSession.h"

namespace zun {

class ConnectivityHelperTask;
class URLSessionDelegateLink;

/// Wraps one URL session of one mode and the process-alive references of the sessions
/// that it served.
///
///   inactive ──activate──▶ in use ◀──increment── idle (release timer runs)
///                             └──last decrement──▶ │ fired: owner hears 0, invalidates
///                                                  ▼
///                           invalidating (tasks finish) ──▶ finished: references handed back
///
/// A request made while inactive, in a mode that does not allow it, or after the end of
/// the URL session is dropped.
///
/// Threading: any thread; work is done on the helper's own serial queue, completions
/// are called there and must not call back synchronously. Never waits for that queue,
/// so it may be used under any lock.
/// Ownership: shared by the agent's table and its sessions; backends hold it weakly.
/// Queued work, running tasks and, once invalidated, the URL session keep it for as
/// long as they last; the release timer does not. A helper that everybody lets go of
/// while it is active ends its URL session and hands its references back.
class ReportingSessionConnectivityHelper final
    : public ReportingSessionConnectivityInterface,
      public URLSessionDelegate,
      public std::enable_shared_from_this<ReportingSessionConnectivityHelper> {
 public:
  /// Hears the usage count that the owner is to act on: 0 means nobody uses it.
  using ReleaseCallback = ConnectivityReleaseTimer::Callback;

  static constexpr uint32_t kDefaultReleaseTimeout = 30;  // seconds

  static ConnectionMode POSTRequestMode() { return kPOSTMode; }
  static ConnectionMode GETRequestMode() { return kGETMode; }

  /// How a helper of `mode` sets its URL session up; none for a value that is no mode.
  static std::optional<URLSessionConfiguration> privateURLSessionConfigWithMode(ConnectionMode mode,
                                                                                RandomSource& random);

  /// `delegate` may be empty (the storebag fetcher's helper keeps nothing alive).
  static std::shared_ptr<ReportingSessionConnectivityHelper> create(
      const PlatformServices& platform, std::weak_ptr<QuorxTransactionHolder> delegate, ConnectionMode mode);
  ~ReportingSessionConnectivityHelper() override;

  // Lifetime; see the diagram. Timeouts are seconds; 0 keeps the helper for ever.

  /// Makes the URL session, unless there is one in use, and sets the timeout in any case.
  void activate(uint32_t releaseTimeout);
  void setReleaseTimeout(uint32_t releaseTimeout);
  void ownerIncrementUsageCount();
  /// Calls `callback` once on `queue` with the count of that moment: at once while
  /// others use the helper, else when the release timer has run or was stopped. Kept
  /// for ever: at once, with 1. A callback whose timer was started over is let go of.
  void ownerDecrementUsageCountWithBlock(ReleaseCallback callback, std::shared_ptr<SerialQueue> queue);
  /// Takes over one process-alive reference from a session that ends.
  void incrementTotalSessionsServedCount();
  /// Hands all of them back, under the delegate's lock. On the caller's thread.
  void releaseAllQuorxTransactions();
  /// Lets running tasks finish, then hands the references back; at once when inactive.
  void invalidate();

  // ReportingSessionConnectivityInterface
  void postURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion completion) override;
  void getURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion completion) override;

  // URLSessionDelegate: on the URL session's delegate queue.
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
  using MadeTask = Result<std::shared_ptr<URLSessionTask>, Error>;

  ReportingSessionConnectivityHelper(const PlatformServices& platform,
                                     std::weak_ptr<QuorxTransactionHolder> delegate, ConnectionMode mode);

  // State queue only.
  void activateOnStateQueue(uint32_t releaseTimeout);
  void decrementOnStateQueue(ReleaseCallback callback, std::shared_ptr<SerialQueue> queue);
  void startConnectivityHelperReleaseTimerWithBlock(ReleaseCallback callback,
                                                    std::shared_ptr<SerialQueue> queue);
  void keepForEver(ReleaseCallback callback, const std::shared_ptr<SerialQueue>& queue);
  void releaseTimerFired();
  void invalidateOnStateQueue();
  void postOnStateQueue(URLRequest request, ConnectivityCompletion completion);
  void getOnStateQueue(URLRequest request, ConnectivityCompletion completion);
  /// None: the request is dropped without a word.
  std::optional<MadeTask> makeUploadTask(URLRequest request);
  void createHelperForTask(URLSessionTask& task, ConnectivityCompletion completion);
  void finishTask(const std::string& taskID, const std::optional<URLResponse>& response,
                  const std::optional<Error>& error);

  void stopConnectivityHelperReleaseTimer();

  // Any thread.
  /// The URL session's description; "inactive" while there is none.
  [[nodiscard]] std::string helperID() const;
  [[nodiscard]] std::shared_ptr<URLSession> privateURLSession() const;
  [[nodiscard]] uint32_t totalSessionsServedCount() const;

  const PlatformServices& platform_;
  SystemLog& log_;
  const StorageContainers containers_;

  mutable Mutex mutex_;
  std::shared_ptr<URLSession> privateURLSession_ GUARDED_BY(mutex_);

  const std::weak_ptr<QuorxTransactionHolder> reportingdSessionDelegate_;
  const ConnectionMode mode_;
  const std::shared_ptr<SerialQueue> stateQueue_;
  // Changed on the state queue; callbacks read it on their owner's queue, maybe after
  // the helper has gone.
  const std::shared_ptr<std::atomic<int32_t>> usageCount_;
  std::atomic<uint32_t> totalSessionsServedCount_{0};

  // State queue only.
  std::shared_ptr<SerialQueue> delegateQueue_;
  std::shared_ptr<URLSessionDelegateLink> delegateLink_;
  std::unordered_map<std::string, std::unique_ptr<ConnectivityHelperTask>> tasks_;
  bool isActive_ = false;
  std::shared_ptr<ConnectivityReleaseTimer> releaseTimer_;  // null while none runs
  uint32_t releaseTimeout_ = kDefaultReleaseTimeout;
};

}  // namespace zun
