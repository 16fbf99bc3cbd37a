#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "support/HTTPSTestServer.h"
#include "support/TestPlatform.h"

namespace zun {

/// Stands for the agent: counts what is handed back. Its fields have no lock of their
/// own, so the thread sanitizer sees a helper that does not take the object lock.
class CountingHolder final : public QuorxTransactionHolder {
 public:
  RecursiveMutex& objectLock() override { return lock_; }
  void releaseQuorxTransactions(uint32_t count) override { releases_.push_back(count); }

  std::vector<uint32_t> releases() {
    const RecursiveMutexLock lock(lock_);
    return releases_;
  }
  uint64_t total() {
    uint64_t sum = 0;
    for (const uint32_t count : releases()) sum += count;
    return sum;
  }

 private:
  RecursiveMutex lock_;
  std::vector<uint32_t> releases_;
};

/// A request whose body was handed over as a file.
struct ObservedUpload {
  bool hasBody = false;  // beside the file
  std::string fileBytes;
};

/// A real URL session; remembers what was to be uploaded, and that it was to end.
class ObservedURLSession final : public URLSession {
 public:
  ObservedURLSession(std::shared_ptr<URLSession> real, std::vector<ObservedUpload>& uploads,
                     int& invalidations)
      : real_(std::move(real)), uploads_(uploads), invalidations_(invalidations) {}

  void setSessionDescription(std::string description) override {
    real_->setSessionDescription(std::move(description));
  }
  std::string sessionDescription() const override { return real_->sessionDescription(); }
  Result<std::shared_ptr<URLSessionTask>, Error> dataTaskWithRequest(URLRequest request) override {
    return real_->dataTaskWithRequest(std::move(request));
  }
  Result<std::shared_ptr<URLSessionTask>, Error> uploadTaskWithRequest(URLRequest request,
                                                                       const std::string& filePath) override {
    std::ifstream file(filePath, std::ios::binary);
    uploads_.push_back(
        {request.body != nullptr, {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()}});
    return real_->uploadTaskWithRequest(std::move(request), filePath);
  }
  void finishTasksAndInvalidate() override {
    ++invalidations_;
    real_->finishTasksAndInvalidate();
  }

 private:
  const std::shared_ptr<URLSession> real_;
  std::vector<ObservedUpload>& uploads_;
  int& invalidations_;
};

/// The real URL-session service; remembers what it was asked for and what it made.
class ObservedURLSessions final : public URLSessionService {
 public:
  explicit ObservedURLSessions(URLSessionService& real) : real_(real) {}

  std::shared_ptr<URLSession> makeSession(const URLSessionConfiguration& configuration,
                                          std::shared_ptr<URLSessionDelegate> delegate,
                                          std::shared_ptr<SerialQueue> delegateQueue) override {
    configurations.push_back(configuration);
    delegates.push_back(delegate);
    const auto session = std::make_shared<ObservedURLSession>(
        real_.makeSession(configuration, std::move(delegate), std::move(delegateQueue)), uploads,
        invalidations);
    sessions.push_back(session);
    return session;
  }

  std::vector<URLSessionConfiguration> configurations;
  std::vector<std::weak_ptr<URLSessionDelegate>> delegates;
  std::vector<std::weak_ptr<URLSession>> sessions;
  std::vector<ObservedUpload> uploads;
  int invalidations = 0;

 private:
  URLSessionService& real_;
};

/// What a completion heard.
struct Outcome {
  int calls = 0;
  std::string data;
  std::optional<URLResponse> response;
  std::optional<Error> error;
  /// Ends when the completion is let go of, called or not.
  std::weak_ptr<int> completionAlive;

  [[nodiscard]] bool isDropped() const { return calls == 0 && completionAlive.expired(); }
};

/// Helpers on a platform whose queues the test cranks by hand and whose time it moves;
/// URL sessions and servers are real. A helper that outlives its test fails it.
class ConnectivityTest : public ::testing::Test {
 protected:
  using Helper = ReportingSessionConnectivityHelper;

  static constexpr std::chrono::seconds kDeadline{60};

  ConnectivityTest()
      : platform_(&executor_, HTTPSTestServer::caFile()),
        urlSessions_(platform_.urlSessions),
        services_{platform_.log,      platform_.clock,   platform_.random,  platform_.files,
                  platform_.defaults, platform_.device,  platform_.locale,  platform_.bundle,
                  executor_,          platform_.timers,  urlSessions_,      platform_.transactions,
                  platform_.sockets,  platform_.modules, platform_.powerLog},
        holder_(std::make_shared<CountingHolder>()) {}

  void TearDown() override {
    helper_.reset();
    const auto isGone = [](const auto& weak) { return weak.expired(); };
    EXPECT_TRUE(crankUntil([&] { return std::all_of(made_.begin(), made_.end(), isGone); }))
        << "a helper is still alive";
    const auto& delegates = urlSessions_.delegates;
    EXPECT_TRUE(crankUntil([&] { return std::all_of(delegates.begin(), delegates.end(), isGone); }))
        << "a URL session is still alive";
    for (const std::string& line : platform_.log.takeErrors())
      ADD_FAILURE() << "unexpected error line: " << line;
  }

  /// Runs what is queued, and what comes, until `condition` holds.
  bool crankUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (true) {
      executor_.runAll();
      if (condition()) return true;
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  void crank() { executor_.runAll(); }

  /// Time goes on, due timers fire and everything queued runs.
  void advance(std::chrono::nanoseconds by) {
    platform_.clock.advance(by);
    platform_.timers.fireDue();
    crank();
  }

  Helper& make(ConnectionMode mode) {
    helper_ = Helper::create(services_, holder_, mode);
    made_.push_back(helper_);
    return *helper_;
  }
  Helper& makeActive(ConnectionMode mode, uint32_t releaseTimeout = Helper::kDefaultReleaseTimeout) {
    make(mode).activate(releaseTimeout);
    crank();
    return *helper_;
  }

  static std::shared_ptr<Outcome> outcome() { return std::make_shared<Outcome>(); }
  static ConnectivityCompletion completionFor(const std::shared_ptr<Outcome>& outcome) {
    const auto alive = std::make_shared<int>(0);
    outcome->completionAlive = alive;
    return [outcome, alive](std::string data, const std::optional<URLResponse>& response,
                            const std::optional<Error>& error) {
      ++outcome->calls;
      outcome->data = std::move(data);
      outcome->response = response;
      outcome->error = error;
    };
  }
  std::shared_ptr<Outcome> post(URLRequest request) {
    auto result = outcome();
    helper_->postURLRequestWithCompletionHandler(std::move(request), completionFor(result));
    return result;
  }
  std::shared_ptr<Outcome> get(URLRequest request) {
    auto result = outcome();
    helper_->getURLRequestWithCompletionHandler(std::move(request), completionFor(result));
    return result;
  }
  bool finished(const std::shared_ptr<Outcome>& outcome) {
    return crankUntil([&] { return outcome->calls > 0; });
  }

  static URLRequest postRequest(const std::string& url, const std::string& body) {
    URLRequest request;
    request.url = url;
    request.method = "POST";
    request.body = std::make_shared<const std::string>(body);
    return request;
  }
  static URLRequest getRequest(const std::string& url) {
    URLRequest request;
    request.url = url;
    return request;
  }

  /// The ID of the helper that was activated last.
  std::string helperID() const {
    const auto session = urlSessions_.sessions.empty() ? nullptr : urlSessions_.sessions.back().lock();
    return session ? session->sessionDescription() : "inactive";
  }

  /// How often this debug line was written.
  int count(const std::string& line) const { return platform_.log.count(LogLevel::kDebug, line); }
  int countStarting(std::string_view beginning) const {
    int number = 0;
    for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug))
      number += line.starts_with(beginning);
    return number;
  }
  /// The first debug line that begins so; "" if there is none.
  std::string lineStarting(std::string_view beginning) const {
    for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
      if (line.starts_with(beginning)) return line;
    }
    return {};
  }
  void expectErrors(const std::vector<std::string>& lines) { EXPECT_EQ(platform_.log.takeErrors(), lines); }
  std::vector<std::string> debugLines() const { return platform_.log.linesOf(LogLevel::kDebug); }

  ManualExecutor executor_;
  TestPlatform platform_;
  ObservedURLSessions urlSessions_;
  PlatformServices services_;
  std::shared_ptr<CountingHolder> holder_;
  std::shared_ptr<Helper> helper_;
  std::vector<std::weak_ptr<Helper>> made_;
};

}  // namespace zun
