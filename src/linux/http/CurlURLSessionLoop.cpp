#include "linux/http/CurlURLSessionLoop.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "values/Check.h"

namespace zun {
namespace {

constexpr long kIdleConnections = 32;
constexpr size_t kSpareTransfers = 16;
constexpr std::chrono::milliseconds kLongestPoll = std::chrono::hours(1);

/// Null without the memory for it.
CURLM* makeMulti() {
  // Once for the process; libcurl's own rule.
  static const CURLcode prepared = curl_global_init(CURL_GLOBAL_DEFAULT);
  ZUN_CHECK(prepared == CURLE_OK);
  CURLM* multi = curl_multi_init();
  if (multi == nullptr) return nullptr;
  curl_multi_setopt(multi, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_NOTHING));
  curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, kIdleConnections);
  return multi;
}

WakeDescriptor makeWake() {
  WakeDescriptor wake;
  if (!wake.isOpen()) throw std::system_error(errno, std::generic_category(), "the transfer thread");
  return wake;
}

// Signals are the main thread's; a peer that hangs up is an error code here.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

Error cancelled(const char* reason) {
  return urlError(URLSessionError::kCancelled, reason);
}

}  // namespace

CurlURLSessionLoop::CurlURLSessionLoop(CurlOptions options, SystemLog& log)
    : options_(std::move(options)),
      log_(log),
      routes_(options_.routes ? options_.routes : std::make_shared<NetlinkRouteMonitor>(log)),
      power_(options_.power ? options_.power : std::make_shared<SysfsPowerSupply>()),
      shares_(options_.maxTasks, options_.maxBodyBytes),
      wake_(makeWake()),
      multi_(makeMulti()),
      queue_(options_) {
  ZUN_CHECK(multi_ != nullptr);
  thread_ = std::thread([this] {
    blockSignals();
    pthread_setname_np(pthread_self(), "zun-transfers");
    run();
  });
}

CurlURLSessionLoop::~CurlURLSessionLoop() {
  ZUN_CHECK(!thread_.joinable());
  spare_.clear();
  curl_multi_cleanup(multi_);
}

void CurlURLSessionLoop::submit(Task task) {
  std::optional<Error> refusal;
  bool wasEmpty = false;
  {
    const MutexLock lock(mutex_);
    if (inbox_.isStopping) {
      refusal = cancelled("the URL-session service has ended");
    } else if (auto reason = shares_.take(*task)) {
      refusal = urlError(URLSessionError::kTooManyTransfers, std::move(*reason));
    } else {
      wasEmpty = inbox_.tasks.empty();
      ++inbox_.inFlight;
      inbox_.tasks.push_back(task);
    }
    // Under the lock: the loop lives as long as it is not stopping.
    if (wasEmpty) {
      heartbeat_->works();
      wake_.signal();
    }
  }
  if (refusal) task->fail(*refusal);
}

void CurlURLSessionLoop::endCancelled() {
  const MutexLock lock(mutex_);
  if (inbox_.isStopping) return;
  inbox_.hasCancelled = true;
  wake_.signal();
}

void CurlURLSessionLoop::stop() {
  {
    const MutexLock lock(mutex_);
    inbox_.isStopping = true;
    wake_.signal();
  }
  thread_.join();
}

size_t CurlURLSessionLoop::transfersInFlight() const {
  const MutexLock lock(mutex_);
  return inbox_.inFlight;
}

bool CurlURLSessionLoop::waitUntilIdle(std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  const MutexLock lock(mutex_);
  while (inbox_.inFlight > 0) {
    if (becameIdle_.wait_until(mutex_, deadline) == std::cv_status::timeout) return inbox_.inFlight == 0;
  }
  return true;
}

void CurlURLSessionLoop::setIdleHandler(UniqueFunction<void()> handler) {
  const MutexLock lock(handlerMutex_);
  idleHandler_ = std::move(handler);
}

void CurlURLSessionLoop::run() {
  while (takeInbox()) {
    reconsiderWaiting();
    startEligible();
    int running = 0;
    curl_multi_perform(multi_, &running);
    deliver();
    collectEnded();
    expire();
    endIdleConnections();
    poll();
  }
  cancelEverything();
  heartbeat_->rests();
}

bool CurlURLSessionLoop::takeInbox() {
  std::vector<Task> tasks;
  bool goesOn = false;
  bool hasCancelled = false;
  {
    const MutexLock lock(mutex_);
    tasks.swap(inbox_.tasks);
    hasCancelled = std::exchange(inbox_.hasCancelled, false);
    goesOn = !inbox_.isStopping;
  }
  Conditions conditions;
  for (Task& task : tasks) {
    task->resourceDeadline = Clock::now() + options_.resourceTimeout;
    admit(std::move(task), conditions);
  }
  if (hasCancelled) {
    const auto isCancelled = [](const CurlURLSessionTask& task) {
      return task.request().cancellation != nullptr && task.request().cancellation->isCancelled();
    };
    const Error error = cancelled("the request was cancelled");
    for (Transfer* transfer : activeOnes([&](Transfer& one) { return isCancelled(one.task()); }))
      end(*transfer, error);
    endPending(error, isCancelled);
  }
  return goesOn;
}

void CurlURLSessionLoop::admit(Task task, Conditions& conditions) {
  if (!hasPending() && active_.empty()) nextExpiry_ = Clock::now();
  const Obstacle obstacle = obstacleFor(*task, conditions);
  if (obstacle == Obstacle::kNone) {
    queue(std::move(task));
  } else {
    wait(std::move(task), obstacle);
  }
}

CurlURLSessionLoop::Obstacle CurlURLSessionLoop::obstacleFor(const CurlURLSessionTask& task,
                                                             Conditions& conditions) {
  if (task.configuration().requiresPowerPluggedIn) {
    if (!conditions.hasPower) conditions.hasPower = power_->isExternalPowerConnected();
    if (!*conditions.hasPower) return Obstacle::kNoPower;
  }
  const bool mayWait = task.configuration().waitsForConnectivity;
  const bool isPicky = task.request().cellularAccess == CellularAccess::kForbidden;
  if (task.target().isLoopback || (!mayWait && !isPicky)) return Obstacle::kNone;
  if (!conditions.route) conditions.route = routeStatus();
  if (mayWait && !conditions.route->hasUsableRoute) return Obstacle::kNoRoute;
  if (isPicky && conditions.route->isOverCellular) return Obstacle::kCellular;
  return Obstacle::kNone;
}

RouteMonitor::Status CurlURLSessionLoop::routeStatus() {
  const RouteMonitor::Status status = routes_->status();
  if (status.hasUsableRoute != seenRoute_.hasUsableRoute ||
      status.isOverCellular != seenRoute_.isOverCellular)
    isRouteStale_ = true;
  seenRoute_ = status;
  return status;
}

void CurlURLSessionLoop::wait(Task task, Obstacle obstacle) {
  if (waiting_.empty()) {
    const char* const reason = obstacle == Obstacle::kNoRoute    ? "a usable network route"
                               : obstacle == Obstacle::kCellular ? "a network that is not cellular"
                                                                 : "external power";
    log_.note("URLSession: transfers wait for {}", reason);
    nextPowerCheck_ = Clock::now() + options_.powerCheckInterval;
  }
  task->wholeDeadline = Clock::time_point::max();
  waiting_.emplace_back(std::move(task), obstacle);
  changeWaiting(1);
}

void CurlURLSessionLoop::reconsiderWaiting() {
  if (waiting_.empty()) return;
  const bool isPowerCheckDue = Clock::now() >= nextPowerCheck_;
  const bool isRouteStale = std::exchange(isRouteStale_, false);
  if (!isRouteStale && !isPowerCheckDue) return;
  if (isPowerCheckDue) nextPowerCheck_ = Clock::now() + options_.powerCheckInterval;
  Conditions conditions;
  // The monitor is readable until it is asked, and whoever waits for power does not ask.
  if (isRouteStale) conditions.route = routeStatus();
  std::deque<std::pair<Task, Obstacle>> still;
  for (auto& [task, obstacle] : waiting_) {
    obstacle = obstacleFor(*task, conditions);
    if (obstacle != Obstacle::kNone) {
      still.emplace_back(std::move(task), obstacle);
      continue;
    }
    changeWaiting(-1);
    queue(std::move(task));
  }
  waiting_ = std::move(still);
}

void CurlURLSessionLoop::queue(Task task) {
  if (task->request().wholeTimeout) task->wholeDeadline = Clock::now() + *task->request().wholeTimeout;
  queue_.push(std::move(task));
}

// The world may have changed while they stood in the queue.
void CurlURLSessionLoop::startEligible() {
  Conditions conditions;
  while (Task task = queue_.next()) {
    const Obstacle obstacle = obstacleFor(*task, conditions);
    if (obstacle == Obstacle::kNone) {
      start(std::move(task));
    } else {
      queue_.ended(*task);
      wait(std::move(task), obstacle);
    }
  }
}

void CurlURLSessionLoop::start(Task task) {
  std::unique_ptr<Transfer> transfer;
  if (spare_.empty()) {
    transfer = std::make_unique<Transfer>(options_);
  } else {
    transfer = std::move(spare_.back());
    spare_.pop_back();
  }
  Transfer& started = *transfer;
  idleConnectionsEnd_.reset();
  active_.emplace(&started, std::move(transfer));
  const bool isReady = started.begin(task);
  if (isReady && curl_multi_add_handle(multi_, started.handle()) == CURLM_OK) return;
  CurlDelivery last = started.endWith(CURLE_OUT_OF_MEMORY);
  release(started);
  complete(task, std::move(last));
}

void CurlURLSessionLoop::collectEnded() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;
    char* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    ended(*reinterpret_cast<Transfer*>(transfer), code);
  }
}

void CurlURLSessionLoop::ended(Transfer& transfer, CURLcode code) {
  if (waitsInsteadOfFailing(transfer)) return;
  const Task task = transfer.task().shared_from_this();
  CurlDelivery last = transfer.endWith(code);
  release(transfer);
  complete(task, std::move(last));
}

// The network went away between the look at the routes and the attempt. A request that went
// out may have arrived.
bool CurlURLSessionLoop::waitsInsteadOfFailing(Transfer& transfer) {
  const Task task = transfer.task().shared_from_this();
  if (transfer.hasSentRequest() || !task->configuration().waitsForConnectivity || task->target().isLoopback ||
      routeStatus().hasUsableRoute)
    return false;
  release(transfer);
  wait(task, Obstacle::kNoRoute);
  return true;
}

void CurlURLSessionLoop::release(Transfer& transfer) {
  curl_multi_remove_handle(multi_, transfer.handle());
  noteSentAgain(transfer.timesSentAgain());
  const Task task = transfer.end();
  const auto found = active_.find(&transfer);
  if (spare_.size() < kSpareTransfers) spare_.push_back(std::move(found->second));
  active_.erase(found);
  queue_.ended(*task);
  if (active_.empty()) idleConnectionsEnd_ = Clock::now() + options_.idleConnectionsEnd;
}

void CurlURLSessionLoop::noteSentAgain(unsigned times) {
  sentAgain_ += times;
  if (times == 0 || Clock::now() < nextSentAgainLine_) return;
  nextSentAgainLine_ = Clock::now() + std::chrono::minutes(1);
  log_.note("URLSession: requests whose kept connection closed unanswered are sent once more, {} so far",
            sentAgain_);
}

template <typename Condition>
std::vector<CurlURLSessionLoop::Transfer*> CurlURLSessionLoop::activeOnes(Condition isOver) const {
  std::vector<Transfer*> over;
  for (const auto& [transfer, owned] : active_) {
    if (isOver(*transfer)) over.push_back(transfer);
  }
  return over;
}

void CurlURLSessionLoop::end(Transfer& transfer, const Error& error) {
  const Task task = transfer.task().shared_from_this();
  CurlDelivery last = transfer.endWith(error);
  release(transfer);
  complete(task, std::move(last));
}

template <typename Condition>
void CurlURLSessionLoop::endPending(const Error& error, Condition isOver) {
  std::vector<Task> waited;
  std::erase_if(waiting_, [&](const auto& entry) {
    if (!isOver(*entry.first)) return false;
    waited.push_back(entry.first);
    return true;
  });
  for (const auto& [tasks, isWaiting] : {std::pair(waited, true), std::pair(queue_.takeOut(isOver), false)}) {
    for (const Task& task : tasks) {
      task->fail(error);
      leave(*task, isWaiting);
    }
  }
}

void CurlURLSessionLoop::expire() {
  const auto now = Clock::now();
  for (Transfer* transfer : activeOnes([now](Transfer& one) { return one.isOver(now); })) {
    if (!waitsInsteadOfFailing(*transfer))
      end(*transfer, urlError(URLSessionError::kTimedOut, "the request timed out"));
  }
  // Those who wait have long: they need no looking at each time round.
  if (!hasPending() || now < nextExpiry_) return;
  const auto often = std::clamp<std::chrono::milliseconds>(
      options_.resourceTimeout / 20, std::chrono::milliseconds(10), std::chrono::minutes(1));
  nextExpiry_ = now + often;
  endPending(urlError(URLSessionError::kTimedOut, "the task's time is over"),
             [now](const CurlURLSessionTask& task) { return task.deadline() <= now; });
}

void CurlURLSessionLoop::deliver() {
  for (const auto& [transfer, owned] : active_) {
    CurlDelivery delivery = transfer->takeDelivery();
    if (!delivery.isEmpty()) transfer->task().deliver(std::move(delivery));
  }
}

// libcurl looks at kept connections only when it wants one: those that servers have closed
// meanwhile would be held, with all their memory, until then.
void CurlURLSessionLoop::endIdleConnections() {
  if (!idleConnectionsEnd_ || Clock::now() < *idleConnectionsEnd_) return;
  CURLM* fresh = makeMulti();
  if (fresh == nullptr) {
    idleConnectionsEnd_ = Clock::now() + options_.idleConnectionsEnd;
    return;
  }
  std::swap(multi_, fresh);
  idleConnectionsEnd_.reset();
  curl_multi_cleanup(fresh);
}

void CurlURLSessionLoop::poll() {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(untilNextDeadline());
  const int timeout = queue_.hasNext() ? 0 : static_cast<int>(std::clamp(left, {}, kLongestPoll).count());
  std::array<curl_waitfd, 2> watched{
      {{wake_.get(), CURL_WAIT_POLLIN, 0}, {routes_->descriptor(), CURL_WAIT_POLLIN, 0}}};
  // Only those who wait want to know of routes; nobody else is woken by them.
  const bool watchesRoutes = !waiting_.empty() && watched[1].fd >= 0;
  int ready = 0;
  heartbeat_->rests();
  curl_multi_poll(multi_, watched.data(), watchesRoutes ? 2 : 1, timeout, &ready);
  heartbeat_->works();
  if (watched[0].revents != 0) wake_.take();
  if (watchesRoutes && watched[1].revents != 0) isRouteStale_ = true;
}

CurlURLSessionLoop::Clock::duration CurlURLSessionLoop::untilNextDeadline() const {
  const auto now = Clock::now();
  auto next = now + kLongestPoll;
  for (const auto& [transfer, owned] : active_) next = std::min(next, transfer->deadline());
  if (hasPending()) next = std::min(next, nextExpiry_);
  if (!waiting_.empty()) next = std::min(next, nextPowerCheck_);
  if (idleConnectionsEnd_) next = std::min(next, *idleConnectionsEnd_);
  return std::max(next - now, Clock::duration::zero());
}

bool CurlURLSessionLoop::hasPending() const {
  return !queue_.isEmpty() || !waiting_.empty();
}

void CurlURLSessionLoop::cancelEverything() {
  const auto always = [](const auto&) { return true; };
  const Error error = cancelled("the URL-session service has ended");
  for (Transfer* transfer : activeOnes(always)) end(*transfer, error);
  endPending(error, always);
}

void CurlURLSessionLoop::complete(const Task& task, CurlDelivery delivery) {
  task->complete(std::move(delivery));
  leave(*task, false);
}

void CurlURLSessionLoop::changeWaiting(int by) {
  bool isIdle = false;
  {
    const MutexLock lock(mutex_);
    inbox_.waiting += static_cast<size_t>(by);
    inbox_.inFlight -= static_cast<size_t>(by);
    isIdle = inbox_.inFlight == 0;
  }
  if (isIdle) sayIdle();
}

void CurlURLSessionLoop::leave(const CurlURLSessionTask& task, bool isWaiting) {
  bool isIdle = false;
  shares_.giveBack(task);
  {
    const MutexLock lock(mutex_);
    --(isWaiting ? inbox_.waiting : inbox_.inFlight);
    isIdle = !isWaiting && inbox_.inFlight == 0;
  }
  if (isIdle) sayIdle();
}

void CurlURLSessionLoop::sayIdle() {
  becameIdle_.notify_all();
  const MutexLock lock(handlerMutex_);
  if (idleHandler_) idleHandler_();
}

}  // namespace zun
