#include <chrono>
#include <utility>

#include "connectivity/ConnectivityHelperTask.h"
#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "connectivity/URLSessionDelegateLink.h"
#include "values/Check.h"
#include "values/UUID.h"

namespace zun {

namespace {

constexpr const char* kStateQueueLabel = "com.vantix.ConnectivityHelperStateQueue";
constexpr const char* kDelegateQueueLabel = "com.vantix.ConnectivityHelperDelegateQueue";
constexpr const char* kInactiveHelperID = "inactive";
constexpr size_t kExpectedTasks = 5;
constexpr std::chrono::milliseconds kReleaseTimerLeeway{100};  // lets wake-ups be shared

/// An object as log lines number it; 0 for none.
int32_t numberOf(const void* object) {
  return static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(object)));
}

/// Queues a call of `callback` with the usage count as it is when the call runs.
void callWithUsageCount(SerialQueue& queue, ConnectivityReleaseTimer::Callback callback,
                        std::shared_ptr<const std::atomic<int32_t>> usageCount) {
  if (!callback) return;
  queue.async(
      [callback = std::move(callback), usageCount = std::move(usageCount)] { callback(usageCount->load()); });
}

void handBack(const std::weak_ptr<QuorxTransactionHolder>& holder, std::atomic<uint32_t>& count) {
  const std::shared_ptr<QuorxTransactionHolder> delegate = holder.lock();
  if (!delegate) {
    count.store(0);
    return;
  }
  const RecursiveMutexLock lock(delegate->objectLock());
  delegate->releaseQuorxTransactions(count.exchange(0));
}

}  // namespace

std::shared_ptr<ReportingSessionConnectivityHelper> ReportingSessionConnectivityHelper::create(
    const PlatformServices& platform, std::weak_ptr<QuorxTransactionHolder> delegate, ConnectionMode mode) {
  std::shared_ptr<ReportingSessionConnectivityHelper> helper(
      new ReportingSessionConnectivityHelper(platform, std::move(delegate), mode));
  // The number is that of the URL session's delegate; there is no URL session yet.
  helper->log_.debug("ReportingSessionConnectivityHelper created with delegate {}", numberOf(nullptr));
  return helper;
}

ReportingSessionConnectivityHelper::ReportingSessionConnectivityHelper(
    const PlatformServices& platform, std::weak_ptr<QuorxTransactionHolder> delegate, ConnectionMode mode)
    : platform_(platform),
      log_(platform.log),
      containers_(platform),
      reportingdSessionDelegate_(std::move(delegate)),
      mode_(mode),
      stateQueue_(SerialQueue::create(kStateQueueLabel, platform.executor)),
      usageCount_(std::make_shared<std::atomic<int32_t>>(0)) {}

ReportingSessionConnectivityHelper::~ReportingSessionConnectivityHelper() {
  log_.debug("ReportingSessionConnectivityHelper dealloced with ID <{}>", helperID());
  stopConnectivityHelperReleaseTimer();
  // Nobody else is left, so nothing of the state queue's can be in use. No task runs
  // either: each would keep the helper.
  if (isActive_) privateURLSession()->finishTasksAndInvalidate();
  const uint32_t leftOver = totalSessionsServedCount_.exchange(0);
  if (leftOver == 0) return;
  // Elsewhere: whoever drops a helper may not be in a position to wait for the lock.
  stateQueue_->async([delegate = reportingdSessionDelegate_, leftOver] {
    std::atomic<uint32_t> count{leftOver};
    handBack(delegate, count);
  });
}

std::shared_ptr<URLSession> ReportingSessionConnectivityHelper::privateURLSession() const {
  const MutexLock lock(mutex_);
  return privateURLSession_;
}

std::string ReportingSessionConnectivityHelper::helperID() const {
  const std::shared_ptr<URLSession> session = privateURLSession();
  return session ? session->sessionDescription() : kInactiveHelperID;
}

uint32_t ReportingSessionConnectivityHelper::totalSessionsServedCount() const {
  return totalSessionsServedCount_.load();
}

// MARK: - Activation and end

void ReportingSessionConnectivityHelper::activate(uint32_t releaseTimeout) {
  log_.debug("activate: activating connectivity helper for Wirepath with ID <{}>", helperID());
  stateQueue_->async(
      [self = shared_from_this(), releaseTimeout] { self->activateOnStateQueue(releaseTimeout); });
}

void ReportingSessionConnectivityHelper::activateOnStateQueue(uint32_t releaseTimeout) {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  releaseTimeout_ = releaseTimeout;
  if (isActive_) {
    log_.debug("activate: connectivity helper is already active for Wirepath with ID <{}>", helperID());
    return;
  }
  // A mode that is none has no configuration: its URL session is a plain one, and the
  // requests say what is wrong.
  const URLSessionConfiguration configuration =
      privateURLSessionConfigWithMode(mode_, platform_.random).value_or(URLSessionConfiguration{});
  delegateQueue_ = SerialQueue::create(kDelegateQueueLabel, platform_.executor);
  delegateLink_ = std::make_shared<URLSessionDelegateLink>(weak_from_this());
  std::shared_ptr<URLSession> session =
      platform_.urlSessions.makeSession(configuration, delegateLink_, delegateQueue_);
  session->setSessionDescription(configuration.identifier.empty() ? uuidString(platform_.random.uuidBytes())
                                                                  : configuration.identifier);
  {
    const MutexLock lock(mutex_);
    privateURLSession_.swap(session);
  }
  tasks_.reserve(kExpectedTasks);
  isActive_ = true;
  log_.debug("Wirepath created and activated with ID <{}>, delegate {}", helperID(),
             numberOf(delegateLink_.get()));
}

void ReportingSessionConnectivityHelper::setReleaseTimeout(uint32_t releaseTimeout) {
  stateQueue_->async([self = shared_from_this(), releaseTimeout] { self->releaseTimeout_ = releaseTimeout; });
}

void ReportingSessionConnectivityHelper::invalidate() {
  stateQueue_->async([self = shared_from_this()] { self->invalidateOnStateQueue(); });
}

void ReportingSessionConnectivityHelper::invalidateOnStateQueue() {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  if (isActive_) {
    isActive_ = false;
    delegateLink_->hold(shared_from_this());
    privateURLSession()->finishTasksAndInvalidate();
    log_.debug("ReportingSessionConnectivityHelper:invalidate: Wirepath with ID <{}>", helperID());
    return;
  }
  log_.debug(
      "ReportingSessionConnectivityHelper:invalidate: release {} Quorx transactions for inactive "
      "connectivity helper",
      static_cast<int32_t>(totalSessionsServedCount()));
  releaseAllQuorxTransactions();
}

// MARK: - Process-alive references

void ReportingSessionConnectivityHelper::incrementTotalSessionsServedCount() {
  totalSessionsServedCount_.fetch_add(1);
  log_.debug("Total Sessions Served Count is incremented for Wirepath with ID <{}>", helperID());
}

void ReportingSessionConnectivityHelper::releaseAllQuorxTransactions() {
  handBack(reportingdSessionDelegate_, totalSessionsServedCount_);
}

// MARK: - Usage count and release timer

void ReportingSessionConnectivityHelper::ownerIncrementUsageCount() {
  stateQueue_->async([self = shared_from_this()] {
    const int32_t usageCount = self->usageCount_->fetch_add(1) + 1;
    self->stopConnectivityHelperReleaseTimer();
    self->log_.debug(
        "ownerIncrementUsageCount: connectivity helper incremented usage count for Wirepath with ID <{}>. "
        "_usageCount={}, _totalSessionsServedCount={}",
        self->helperID(), usageCount, static_cast<int32_t>(self->totalSessionsServedCount()));
  });
}

void ReportingSessionConnectivityHelper::ownerDecrementUsageCountWithBlock(
    ReleaseCallback callback, std::shared_ptr<SerialQueue> queue) {
  stateQueue_->async(
      [self = shared_from_this(), callback = std::move(callback), queue = std::move(queue)]() mutable {
        self->decrementOnStateQueue(std::move(callback), std::move(queue));
      });
}

void ReportingSessionConnectivityHelper::decrementOnStateQueue(ReleaseCallback callback,
                                                               std::shared_ptr<SerialQueue> queue) {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  const auto servedCount = [this] { return static_cast<int32_t>(totalSessionsServedCount()); };
  if (usageCount_->load() != 0) {
    const int32_t usageCount = usageCount_->fetch_sub(1) - 1;
    log_.debug(
        "ownerDecrementUsageCountWithBlock: connectivity helper decremented usage count for Wirepath with "
        "ID <{}>. _usageCount={}, _totalSessionsServedCount={}",
        helperID(), usageCount, servedCount());
  }
  if (const int32_t usageCount = usageCount_->load(); usageCount != 0) {
    log_.debug(
        "ownerDecrementUsageCountWithBlock: Usage count for Wirepath with ID <{}> is greater than 0. "
        "Notifying owner that _usageCount={}, _totalSessionsServedCount={}",
        helperID(), usageCount, servedCount());
    callWithUsageCount(queue ? *queue : *stateQueue_, std::move(callback), usageCount_);
    return;
  }
  log_.debug(
      "ownerDecrementUsageCountWithBlock: "
      "Usage count for Wirepath with ID <{}> is equal to 0. Starting connectivity helper release timer",
      helperID());
  startConnectivityHelperReleaseTimerWithBlock(std::move(callback), std::move(queue));
}

void ReportingSessionConnectivityHelper::startConnectivityHelperReleaseTimerWithBlock(
    ReleaseCallback callback, std::shared_ptr<SerialQueue> queue) {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  if (releaseTimeout_ == 0) {
    keepForEver(std::move(callback), queue);
    return;
  }
  TimerOptions options;
  options.firstFiring = std::chrono::seconds(releaseTimeout_);
  options.leeway = kReleaseTimerLeeway;
  // The handlers come on this queue, so none of them runs before the timer is stored.
  auto fired = [weakSelf = weak_from_this()] {
    if (const auto self = weakSelf.lock()) self->releaseTimerFired();
  };
  const auto releaseTimer = std::make_shared<ConnectivityReleaseTimer>();
  auto cancelled = [releaseTimer, weakStateQueue = std::weak_ptr(stateQueue_)] {
    ConnectivityReleaseTimer::Waiting waiting = releaseTimer->clear();
    const std::shared_ptr<SerialQueue> owner = waiting.queue ? waiting.queue : weakStateQueue.lock();
    if (!owner || !waiting.callback) return;
    owner->async([callback = std::move(waiting.callback), count = waiting.usageCount] { callback(count); });
  };
  releaseTimer->set(platform_.timers.startTimer(options, stateQueue_, std::move(fired), std::move(cancelled)),
                    {std::move(callback), std::move(queue)});
  // One that runs already is not cancelled, and would fire for the new callback: the owners'
  // count keeps that from happening. Nobody waits for it any more.
  if (const auto replaced = std::exchange(releaseTimer_, releaseTimer)) (void)replaced->clear();
  log_.debug(
      "startConnectivityHelperReleaseTimerWithBlock: "
      "started connectivity helper release timer for Wirepath with ID <{}>",
      helperID());
}

void ReportingSessionConnectivityHelper::releaseTimerFired() {
  ZUN_ASSERT_ON_QUEUE(*stateQueue_);
  log_.debug(
      "startConnectivityHelperReleaseTimerWithBlock: "
      "Connectivity helper release timer fired for Wirepath with ID <{}>, timeout {}s",
      helperID(), static_cast<int32_t>(releaseTimeout_));
  const auto releaseTimer = std::exchange(releaseTimer_, nullptr);
  if (!releaseTimer) return;
  releaseTimer->cancel(usageCount_->load());
  ConnectivityReleaseTimer::Waiting waiting = releaseTimer->takeCallback();
  if (!waiting.callback) return;
  SerialQueue& owner = waiting.queue ? *waiting.queue : *stateQueue_;
  owner.async([&log = log_, callback = std::move(waiting.callback), usageCount = usageCount_] {
    const int32_t count = usageCount->load();
    log.debug(
        "startConnectivityHelperReleaseTimerWithBlock: "
        "Calling back owner of Connectivity helper with _usageCount={}",
        count);
    callback(count);
  });
}

void ReportingSessionConnectivityHelper::keepForEver(ReleaseCallback callback,
                                                     const std::shared_ptr<SerialQueue>& queue) {
  log_.debug(
      "startConnectivityHelperReleaseTimerWithBlock: "
      "Special case of dealing with ever-lasting connectivity helper {}",
      helperID());
  if (callback) {
    SerialQueue& owner = queue ? *queue : *stateQueue_;
    owner.async([callback = std::move(callback)] { callback(1); });
  }
  log_.debug(
      "startConnectivityHelperReleaseTimerWithBlock: "
      "release {} Quorx transactions for ever-lasting connectivity helper {}",
      static_cast<int32_t>(totalSessionsServedCount()), helperID());
  releaseAllQuorxTransactions();
}

void ReportingSessionConnectivityHelper::stopConnectivityHelperReleaseTimer() {
  log_.debug(
      "stopConnectivityHelperReleaseTimer: "
      "stopping connectivity helper release timer for Wirepath with ID <{}>",
      helperID());
  if (const auto stopped = std::exchange(releaseTimer_, nullptr)) stopped->cancel(usageCount_->load());
}

}  // namespace zun
