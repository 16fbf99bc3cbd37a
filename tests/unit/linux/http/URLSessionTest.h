#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linux/http/CurlURLSession.h"
#include "linux/loop/WorkerPool.h"
#include "support/HTTPSTestServer.h"
#include "support/RecordingLog.h"

namespace zun {

/// The traffic class of this process's client sockets to `port`; -1 without one.
inline int trafficClassTowards(uint16_t port) {
  int found = -1;
  DIR* folder = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(folder)) {
    const int descriptor = std::atoi(entry->d_name);
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
        peer.sin_family != AF_INET || ntohs(peer.sin_port) != port)
      continue;
    int value = -1;
    length = sizeof value;
    if (::getsockopt(descriptor, IPPROTO_IP, IP_TOS, &value, &length) == 0) found = value;
  }
  ::closedir(folder);
  return found;
}

/// What one task's delegate heard.
struct HeardTask {
  std::vector<std::string> calls;  // "response", "data", "sent", "complete" without repeats
  std::optional<URLResponse> announced;
  std::optional<URLResponse> response;
  std::optional<Error> error;
  std::string data;
  int dataCalls = 0;
  int completions = 0;
  int64_t sent = 0;
  int64_t expected = 0;

  [[nodiscard]] bool failedWith(URLSessionError code) const {
    return error && error->domain == kURLErrorDomain && error->code == static_cast<int32_t>(code);
  }
};

/// Keeps what it hears, by task description. Notices calls at the same time or off its queue.
class RecordingDelegate final : public URLSessionDelegate {
 public:
  explicit RecordingDelegate(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

  void didReceiveResponse(URLSession&, URLSessionTask& task, const URLResponse& response) override {
    note(task, "response", [&](HeardTask& heard) { heard.announced = response; });
  }
  void didReceiveData(URLSession&, URLSessionTask& task, std::string bytes) override {
    note(task, "data", [&](HeardTask& heard) {
      heard.data += bytes;
      ++heard.dataCalls;
    });
  }
  void didSendBodyData(URLSession&, URLSessionTask& task, int64_t sent, int64_t expected) override {
    note(task, "sent", [&](HeardTask& heard) {
      EXPECT_GT(sent, heard.sent);
      heard.sent = sent;
      heard.expected = expected;
    });
  }
  void didCompleteWithError(URLSession&, URLSessionTask& task, const std::optional<URLResponse>& response,
                            const std::optional<Error>& error) override {
    note(task, "complete", [&](HeardTask& heard) {
      heard.response = response;
      heard.error = error;
      ++heard.completions;
      ++completions_;
    });
  }
  void didBecomeInvalidWithError(URLSession&, const std::optional<Error>& error) override {
    const std::lock_guard lock(mutex_);
    ++invalidations_;
    invalidationError_ = error;
    completionsAtInvalidation_ = completions_;
    changed_.notify_all();
  }

  HeardTask heard(const std::string& description) const {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, task] : tasks_) {
      if (name == description) return task;
    }
    return {};
  }
  bool waitForCompletions(size_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, HTTPSTestServer::kDeadline, [&] { return completions_ >= count; });
  }
  bool waitForInvalidation() const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, HTTPSTestServer::kDeadline, [&] { return invalidations_ > 0; });
  }
  bool waitForResponse(const std::string& description) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, HTTPSTestServer::kDeadline, [&] {
      for (const auto& [name, task] : tasks_) {
        if (name == description && task.announced) return true;
      }
      return false;
    });
  }
  bool waitForEnd(const std::string& description) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, HTTPSTestServer::kDeadline, [&] {
      for (const auto& [name, task] : tasks_) {
        if (name == description && task.completions > 0) return true;
      }
      return false;
    });
  }
  bool waitForData(const std::string& description, int calls) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, HTTPSTestServer::kDeadline, [&] {
      for (const auto& [name, task] : tasks_) {
        if (name == description && (task.dataCalls >= calls || task.completions > 0)) return true;
      }
      return false;
    });
  }
  size_t completions() const {
    const std::lock_guard lock(mutex_);
    return completions_;
  }
  int invalidations() const {
    const std::lock_guard lock(mutex_);
    return invalidations_;
  }
  std::optional<Error> invalidationError() const {
    const std::lock_guard lock(mutex_);
    return invalidationError_;
  }
  size_t completionsAtInvalidation() const {
    const std::lock_guard lock(mutex_);
    return completionsAtInvalidation_;
  }

 private:
  template <typename Change>
  void note(URLSessionTask& task, const char* call, Change change) {
    EXPECT_TRUE(queue_->isCurrent());
    const std::string description = task.taskDescription();
    const std::lock_guard lock(mutex_);
    EXPECT_EQ(invalidations_, 0);
    HeardTask* found = nullptr;
    for (auto& [name, heard] : tasks_) {
      if (name == description) found = &heard;
    }
    if (found == nullptr) found = &tasks_.emplace_back(description, HeardTask{}).second;
    EXPECT_EQ(found->completions, 0) << "heard of a task after its end";
    if (found->calls.empty() || found->calls.back() != call) found->calls.emplace_back(call);
    change(*found);
    changed_.notify_all();
  }

  const std::shared_ptr<SerialQueue> queue_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::pair<std::string, HeardTask>> tasks_;
  size_t completions_ = 0;
  int invalidations_ = 0;
  size_t completionsAtInvalidation_ = 0;
  std::optional<Error> invalidationError_;
};

/// A network that comes and goes as the test says.
class FakeRoutes final : public RouteMonitor {
 public:
  explicit FakeRoutes(Status status) : descriptor_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    statuses_.push_back(status);
  }
  ~FakeRoutes() override { ::close(descriptor_); }

  Status status() override {
    const std::lock_guard lock(mutex_);
    uint64_t events = 0;
    if (::read(descriptor_, &events, sizeof events) < 0) events = 0;
    ++asked_;
    changed_.notify_all();
    const Status status = statuses_.front();
    if (statuses_.size() > 1) statuses_.erase(statuses_.begin());
    return status;
  }
  int descriptor() const override { return descriptor_; }

  void become(Status status) { becomeInOrder({status}); }
  /// Each is told once, the last for ever.
  void becomeInOrder(std::vector<Status> statuses) {
    const std::lock_guard lock(mutex_);
    statuses_ = std::move(statuses);
    const uint64_t one = 1;
    EXPECT_EQ(::write(descriptor_, &one, sizeof one), static_cast<ssize_t>(sizeof one));
  }
  bool waitUntilAsked(int times) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, HTTPSTestServer::kDeadline, [&] { return asked_ >= times; });
  }
  int asked() const {
    const std::lock_guard lock(mutex_);
    return asked_;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Status> statuses_;
  int asked_ = 0;
  const int descriptor_;
};

class FakePower final : public PowerSupply {
 public:
  bool isExternalPowerConnected() override {
    const std::lock_guard lock(mutex_);
    ++asked_;
    changed_.notify_all();
    return connected_;
  }
  void connect() {
    const std::lock_guard lock(mutex_);
    connected_ = true;
  }
  bool waitUntilAsked(int times) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, HTTPSTestServer::kDeadline, [&] { return asked_ >= times; });
  }
  int asked() const {
    const std::lock_guard lock(mutex_);
    return asked_;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool connected_ = false;
  int asked_ = 0;
};

inline constexpr RouteMonitor::Status kNetworkUp{.hasUsableRoute = true, .isOverCellular = false};
inline constexpr RouteMonitor::Status kNetworkDown{.hasUsableRoute = false, .isOverCellular = false};
inline constexpr RouteMonitor::Status kNetworkCellular{.hasUsableRoute = true, .isOverCellular = true};

/// A service, a session of it and a real server. `start` makes the service anew with
/// other options.
class URLSessionTest : public ::testing::Test {
 protected:
  void SetUp() override { start({}); }
  void TearDown() override {
    session_.reset();
    service_.reset();
    EXPECT_EQ(log_.takeErrors(), std::vector<std::string>());
  }

  void start(CurlOptions options, const URLSessionConfiguration& configuration = waiting()) {
    session_.reset();
    service_.reset();
    options.caFile = HTTPSTestServer::caFile();
    options.routes = routes_;
    options.power = power_;
    options.hostAddresses.push_back("server.test:" + std::to_string(server_.port()) + ":127.0.0.1");
    service_ = std::make_unique<CurlURLSessionService>(std::move(options), log_);
    startSession(configuration);
  }
  void startSession(const URLSessionConfiguration& configuration) {
    queue_ = SerialQueue::create("test.delegate", workers_);
    delegate_ = std::make_shared<RecordingDelegate>(queue_);
    session_ = service_->makeSession(configuration, delegate_, queue_);
  }
  static URLSessionConfiguration waiting() {
    URLSessionConfiguration configuration;
    configuration.waitsForConnectivity = true;
    return configuration;
  }

  std::shared_ptr<URLSessionTask> make(URLRequest request, const std::string& name) {
    auto task = session_->dataTaskWithRequest(std::move(request));
    EXPECT_TRUE(task) << "task was refused";
    if (!task) return nullptr;
    (*task)->setTaskDescription(name);
    return *task;
  }
  void begin(URLRequest request, const std::string& name = "task") {
    if (const auto task = make(std::move(request), name)) task->resume();
  }
  /// Begins it and waits for its end.
  HeardTask load(URLRequest request) {
    const size_t before = delegate_->completions();
    const std::string name = "load " + std::to_string(before);
    begin(std::move(request), name);
    EXPECT_TRUE(delegate_->waitForCompletions(before + 1));
    return delegate_->heard(name);
  }
  HeardTask get(const std::string& url) { return load({.url = url}); }
  static URLRequest post(const std::string& url, std::string body) {
    URLRequest request{.url = url, .method = "POST"};
    request.body = std::make_shared<const std::string>(std::move(body));
    return request;
  }

  RecordingLog log_;
  WorkerPool workers_{2};
  HTTPSTestServer server_;
  std::shared_ptr<FakeRoutes> routes_ = std::make_shared<FakeRoutes>(kNetworkUp);
  std::shared_ptr<FakePower> power_ = std::make_shared<FakePower>();
  std::unique_ptr<CurlURLSessionService> service_;
  std::shared_ptr<SerialQueue> queue_;
  std::shared_ptr<RecordingDelegate> delegate_;
  std::shared_ptr<URLSession> session_;
};

}  // namespace zun
