#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "linux/http/PowerSupply.h"
#include "linux/http/RouteMonitor.h"
#include "linux/system/Heartbeat.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"
#include "platform/URLSession.h"
#include "platform/UniqueFunction.h"

namespace zun {

class CurlURLSession;
class CurlURLSessionLoop;

struct CurlOptions {
  std::string caFile = {};  // PEM; empty: the system's store

  /// Without progress for so long a task ends; none: as its request says.
  std::optional<std::chrono::milliseconds> idleTimeout = {};
  /// From `resume` to the end of the task, time spent waiting included.
  std::chrono::milliseconds resourceTimeout = std::chrono::hours(7 * 24);
  std::chrono::milliseconds powerCheckInterval = std::chrono::seconds(30);

  /// Kept connections end when nothing has been under way for so long.
  std::chrono::milliseconds idleConnectionsEnd = std::chrono::seconds(20);

  int64_t maxResponseBytes = 16 << 20;
  int64_t maxUploadFileBytes = 256 << 20;
  /// What is beyond them waits for its turn.
  size_t maxConnectionsPerHost = 6;
  size_t maxConnections = 64;
  /// Uploads apart. What is beyond a share of them fails with kTooManyTransfers. Tasks that
  /// wait count.
  size_t maxTasks = 10'000;
  int64_t maxBodyBytes = 256 << 20;

  std::vector<std::string> hostAddresses = {};  // "name:port:address": not asked of DNS
  std::shared_ptr<RouteMonitor> routes = {};    // none: the kernel's
  std::shared_ptr<PowerSupply> power = {};      // none: the kernel's
};

/// The URL-session service on libcurl.
///
/// A task goes through: made, resumed, [waiting for a network or power], [queued for its
/// host], transferring, completed. What waits for connectivity waits only for the
/// network's sake: a target on the loopback network is tried at once, whatever the
/// routes, and a refusal there is final.
///
/// Threading: any thread. One transfer thread drives every transfer of every session;
/// delegates are called on their queues.
/// Ownership: sessions and tasks may outlive the service; they then only cancel.
class CurlURLSessionService final : public URLSessionService {
 public:
  CurlURLSessionService(CurlOptions options, SystemLog& log);
  /// Ends what is left with kCancelled, invalidates the sessions and joins.
  ~CurlURLSessionService() override;
  CurlURLSessionService(const CurlURLSessionService&) = delete;
  CurlURLSessionService& operator=(const CurlURLSessionService&) = delete;

  std::shared_ptr<URLSession> makeSession(const URLSessionConfiguration& configuration,
                                          std::shared_ptr<URLSessionDelegate> delegate,
                                          std::shared_ptr<SerialQueue> delegateQueue) override;

  /// Tasks resumed and not completed, without those that wait for a network or power.
  [[nodiscard]] size_t transfersInFlight() const;
  /// Blocks until none is in flight; false when `timeout` passed first. Completions are
  /// then on their way to the delegates.
  [[nodiscard]] bool waitUntilIdle(std::chrono::milliseconds timeout) const;
  /// Called on the transfer thread, or that of a `resume`, whenever the last one in
  /// flight has ended. Replaces the handler set before; once this returns, that one is
  /// not running.
  void setIdleHandler(UniqueFunction<void()> handler);
  /// The transfer thread's.
  [[nodiscard]] std::shared_ptr<const Heartbeat> heartbeat() const;

 private:
  const std::shared_ptr<CurlURLSessionLoop> loop_;
  Mutex mutex_;
  std::vector<std::weak_ptr<CurlURLSession>> sessions_ GUARDED_BY(mutex_);
  size_t pruneAt_ GUARDED_BY(mutex_) = 64;
};

}  // namespace zun
