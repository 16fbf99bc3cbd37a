#pragma once

#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "linux/files/WakeDescriptor.h"
#include "linux/http/CurlURLSession.h"
#include "linux/http/CurlURLSessionTransfer.h"
#include "linux/http/TransferQueue.h"
#include "linux/http/TransferShares.h"
#include "platform/Mutex.h"

namespace zun {

/// The transfer thread and everything that it drives.
///
///   submit ──▶ inbox ──▶ waiting (network, power) ──▶ queue ──▶ active ──▶ completed
///
/// Threading: public operations on any thread; what is below `run` belongs to the
/// transfer thread. The inbox is the only thing that they share.
/// Ownership: of the service and its sessions; owns the tasks from `submit` to their end.
class CurlURLSessionLoop final {
 public:
  CurlURLSessionLoop(CurlOptions options, SystemLog& log);
  ~CurlURLSessionLoop();
  CurlURLSessionLoop(const CurlURLSessionLoop&) = delete;
  CurlURLSessionLoop& operator=(const CurlURLSessionLoop&) = delete;

  [[nodiscard]] const CurlOptions& options() const { return options_; }

  /// Takes over a task that has no defect. It completes in any case.
  void submit(std::shared_ptr<CurlURLSessionTask> task);
  /// Ends the tasks whose requests have been cancelled, soon.
  void endCancelled();
  /// Cancels every task and joins. What is submitted later is cancelled at once. Once.
  void stop();

  [[nodiscard]] size_t transfersInFlight() const;
  [[nodiscard]] bool waitUntilIdle(std::chrono::milliseconds timeout) const;
  void setIdleHandler(UniqueFunction<void()> handler);
  [[nodiscard]] std::shared_ptr<const Heartbeat> heartbeat() const { return heartbeat_; }

 private:
  using Task = std::shared_ptr<CurlURLSessionTask>;
  using Clock = std::chrono::steady_clock;
  using Transfer = CurlURLSessionTransfer;

  enum class Obstacle { kNone, kNoRoute, kCellular, kNoPower };

  /// What the world looks like during one pass over those who wait.
  struct Conditions {
    std::optional<RouteMonitor::Status> route;
    std::optional<bool> hasPower;
  };

  void run();
  bool takeInbox();
  void admit(Task task, Conditions& conditions);
  [[nodiscard]] Obstacle obstacleFor(const CurlURLSessionTask& task, Conditions& conditions);
  [[nodiscard]] RouteMonitor::Status routeStatus();
  void wait(Task task, Obstacle obstacle);
  void queue(Task task);
  void reconsiderWaiting();
  void startEligible();
  void start(Task task);
  void collectEnded();
  void ended(Transfer& transfer, CURLcode code);
  bool waitsInsteadOfFailing(Transfer& transfer);
  void release(Transfer& transfer);
  void noteSentAgain(unsigned times);
  void expire();
  /// Those under way for which `isOver` says so.
  template <typename Condition>
  [[nodiscard]] std::vector<Transfer*> activeOnes(Condition isOver) const;
  void end(Transfer& transfer, const Error& error);
  /// Ends the tasks that are not yet under way for which `isOver` says so.
  template <typename Condition>
  void endPending(const Error& error, Condition isOver);
  void deliver();
  void endIdleConnections();
  void poll();
  [[nodiscard]] Clock::duration untilNextDeadline() const;
  void cancelEverything();
  void complete(const Task& task, CurlDelivery delivery);
  void changeWaiting(int by);
  void leave(const CurlURLSessionTask& task, bool isWaiting);
  void sayIdle();
  [[nodiscard]] bool hasPending() const;

  const CurlOptions options_;
  SystemLog& log_;
  const std::shared_ptr<RouteMonitor> routes_;
  const std::shared_ptr<PowerSupply> power_;
  TransferShares shares_;
  const std::shared_ptr<Heartbeat> heartbeat_ = std::make_shared<Heartbeat>("the transfer thread");
  // Not curl_multi_wakeup: its socket needs memory for each byte, and a call to wake that fails
  // would leave every transfer waiting.
  const WakeDescriptor wake_;
  CURLM* multi_;  // another one, now and then; the transfer thread's while that runs

  struct Inbox {
    std::vector<Task> tasks;
    size_t inFlight = 0;
    size_t waiting = 0;
    bool hasCancelled = false;  // some task's request
    bool isStopping = false;
  };
  mutable Mutex mutex_;
  mutable std::condition_variable_any becameIdle_;
  Inbox inbox_ GUARDED_BY(mutex_);
  Mutex handlerMutex_;
  UniqueFunction<void()> idleHandler_ GUARDED_BY(handlerMutex_);

  // The transfer thread's.
  TransferQueue queue_;
  std::deque<std::pair<Task, Obstacle>> waiting_;
  std::unordered_map<Transfer*, std::unique_ptr<Transfer>> active_;
  std::vector<std::unique_ptr<Transfer>> spare_;
  RouteMonitor::Status seenRoute_;
  bool isRouteStale_ = false;  // those who wait were judged by another status
  uint64_t sentAgain_ = 0;
  Clock::time_point nextSentAgainLine_;
  Clock::time_point nextExpiry_;
  Clock::time_point nextPowerCheck_;
  std::optional<Clock::time_point> idleConnectionsEnd_;  // none: something is under way, or nothing is kept

  std::thread thread_;
};

}  // namespace zun
