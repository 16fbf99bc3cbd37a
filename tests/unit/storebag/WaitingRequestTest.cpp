// Which requests are made, how they end, and when what they bring is seen.

#include <sys/file.h>

#include <atomic>

#include "NetworkStorebagFetcherFixture.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

// MARK: - Requests that the connectivity helper drops

/// URL sessions without a network: they make no tasks, as one does that has been
/// invalidated, or tasks that wait until the session is invalidated.
class NoNetworkSessions final : public URLSessionService {
 public:
  enum class Tasks { kNone, kWaiting };
  /// A request, and how many of those before it had been cancelled when it was made.
  struct Made {
    URLRequest request;
    int cancelledBefore = 0;
  };

  class Task final : public URLSessionTask {
   public:
    void setTaskDescription(std::string description) override { description_ = std::move(description); }
    std::string taskDescription() const override { return description_; }
    void resume() override {}

   private:
    std::string description_;
  };

  class Session final : public URLSession, public std::enable_shared_from_this<Session> {
   public:
    Session(NoNetworkSessions& service, std::shared_ptr<URLSessionDelegate> delegate,
            std::shared_ptr<SerialQueue> queue)
        : service_(service), delegate_(std::move(delegate)), queue_(std::move(queue)) {}

    void setSessionDescription(std::string) override {}
    std::string sessionDescription() const override { return "no network"; }
    Result<std::shared_ptr<URLSessionTask>, Error> dataTaskWithRequest(URLRequest request) override {
      if (service_.tasks_ == Tasks::kNone) {
        return Result<std::shared_ptr<URLSessionTask>, Error>::failure({kURLErrorDomain, 1, "gone"});
      }
      service_.note(std::move(request));
      const MutexLock lock(mutex_);
      tasks_.push_back(std::make_shared<Task>());
      return tasks_.back();
    }
    Result<std::shared_ptr<URLSessionTask>, Error> uploadTaskWithRequest(URLRequest request,
                                                                         const std::string&) override {
      return dataTaskWithRequest(std::move(request));
    }
    void finishTasksAndInvalidate() override {
      queue_->async([self = shared_from_this()] { self->finish(); });
    }

   private:
    void finish() {
      std::vector<std::shared_ptr<URLSessionTask>> tasks;
      std::shared_ptr<URLSessionDelegate> delegate;
      {
        const MutexLock lock(mutex_);
        tasks.swap(tasks_);
        delegate.swap(delegate_);
      }
      const Error cancelled{kURLErrorDomain, static_cast<int32_t>(URLSessionError::kCancelled), "cancelled"};
      for (const auto& task : tasks) delegate->didCompleteWithError(*this, *task, std::nullopt, cancelled);
      delegate->didBecomeInvalidWithError(*this, std::nullopt);
    }

    NoNetworkSessions& service_;
    Mutex mutex_;
    std::vector<std::shared_ptr<URLSessionTask>> tasks_;
    std::shared_ptr<URLSessionDelegate> delegate_;
    const std::shared_ptr<SerialQueue> queue_;
  };

  explicit NoNetworkSessions(Tasks tasks) : tasks_(tasks) {}
  std::shared_ptr<URLSession> makeSession(const URLSessionConfiguration&,
                                          std::shared_ptr<URLSessionDelegate> delegate,
                                          std::shared_ptr<SerialQueue> queue) override {
    return std::make_shared<Session>(*this, std::move(delegate), std::move(queue));
  }
  std::vector<Made> made() const {
    const MutexLock lock(mutex_);
    return made_;
  }

 private:
  void note(URLRequest request) {
    const MutexLock lock(mutex_);
    const auto cancelled = std::count_if(made_.begin(), made_.end(), [](const Made& former) {
      return former.request.cancellation->isCancelled();
    });
    made_.push_back({std::move(request), static_cast<int>(cancelled)});
  }

  const Tasks tasks_;
  mutable Mutex mutex_;
  std::vector<Made> made_ GUARDED_BY(mutex_);
};

class NoNetworkTest : public StorebagTest {
 protected:
  explicit NoNetworkTest(NoNetworkSessions::Tasks tasks) : sessions_(tasks) {}

  // The fetch client ends before its platform does.
  void TearDown() override {
    fetcher_.reset();
    waitFor([this] {
      return platform_.log.contains(LogLevel::kDebug,
                                    "ReportingSessionConnectivityHelper dealloced with ID <no network>");
    });
    StorebagTest::TearDown();
  }

  NoNetworkSessions sessions_;
  PlatformServices services_{platform_.log,      platform_.clock,   platform_.random,  platform_.files,
                             platform_.defaults, platform_.device,  platform_.locale,  platform_.bundle,
                             platform_.workers,  platform_.timers,  sessions_,         platform_.transactions,
                             platform_.sockets,  platform_.modules, platform_.powerLog};
  std::shared_ptr<NetworkStorebagFetcher> fetcher_ = NetworkStorebagFetcher::create(
      services_, identity_, {.requestTimeout = std::chrono::seconds(0), .grace = std::chrono::seconds(1)});
};

class WaitingRequestTest : public NoNetworkTest {
 protected:
  WaitingRequestTest() : NoNetworkTest(NoNetworkSessions::Tasks::kWaiting) {}
};

TEST_F(WaitingRequestTest, CallerDoesNotWaitForANetworkWithTheRequest) {
  EXPECT_FALSE(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  expectDefaultLine(
      "fetchNetworkStorebag: Error resolving with lookup server "
      "https://storebag.zunreporting.example/tessel?version=3.2.1, sendSynchronousRequest error the request "
      "timed out");
}

TEST_F(WaitingRequestTest, NextAttemptJoinsTheRequestThatStillWaitsForANetwork) {
  const auto requests = [this] {
    int number = 0;
    for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug))
      number += line.starts_with("createHelperForTask: created helperTask for task <");
    return number;
  };
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_FALSE(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).section);
    expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  }
  EXPECT_EQ(requests(), 1);
  EXPECT_FALSE(fetcher_->fetchStorebagForEnvironmentAndClientType(kConfero).section);
  platform_.log.takeErrors();
  EXPECT_EQ(requests(), 2);
}

TEST_F(WaitingRequestTest, RequestToAnotherServerFollowsTheEndOfTheFormer) {
  for (const char* server : {"https://first.example", "https://first.example", "https://second.example"}) {
    setDefault("zunreporting_storebag_url", server);
    EXPECT_FALSE(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).section);
    expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  }
  waitFor([this] { return sessions_.made().size() == 2; });
  const auto made = sessions_.made();
  EXPECT_EQ(made[0].request.url, "https://first.example/tessel?version=3.2.1");
  EXPECT_EQ(made[1].request.url, "https://second.example/tessel?version=3.2.1");
  EXPECT_EQ(made[1].cancelledBefore, 1);
}

// The whole time is bounded as well: a byte now and then is progress.
TEST_F(WaitingRequestTest, RequestHasFifteenSecondsWithoutProgressAndTwoMinutesInAll) {
  fetcher_ = NetworkStorebagFetcher::create(services_, identity_);
  putInCache("tessel", sealed(storebag("1.0")), 100);
  EXPECT_EQ(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).version, "1.0");
  waitFor([this] { return sessions_.made().size() == 1; });
  const URLRequest request = sessions_.made()[0].request;
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.timeout, 15s);
  EXPECT_EQ(request.wholeTimeout, 120s);
  EXPECT_EQ(NetworkStorebagOptions{}.grace, 5s);
}

class DroppedRequestTest : public NoNetworkTest {
 protected:
  // Time enough: the wait ends because the request is dropped.
  DroppedRequestTest() : NoNetworkTest(NoNetworkSessions::Tasks::kNone) {
    fetcher_ =
        NetworkStorebagFetcher::create(services_, identity_, {.requestTimeout = std::chrono::hours(1)});
  }
};

TEST_F(DroppedRequestTest, DroppedRequestEndsTheWaitAsAnError) {
  EXPECT_FALSE(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).section);
  expectErrors(
      {notLoaded("tessel"),
       "getURLRequestWithCompletionHandler: underlying Wirepath has been invalidated with error gone. "
       "Ignoring GET request.",
       notFetched(kTessel)});
  expectDefaultLine(
      "fetchNetworkStorebag: Error resolving with lookup server "
      "https://storebag.zunreporting.example/tessel?version=3.2.1, sendSynchronousRequest error the request "
      "was "
      "dropped");
}

TEST_F(DroppedRequestTest, DroppedRequestIsNotJoined) {
  for (size_t attempt = 1; attempt <= 2; ++attempt) {
    EXPECT_FALSE(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).section);
    EXPECT_EQ(platform_.log.takeErrors().size(), 3u) << attempt;
  }
}

TEST_F(DroppedRequestTest, DroppedRefreshLetsTheNextLookupTryAgain) {
  putInCache("tessel", sealed(storebag("1.0")), 100);
  const auto attempts = [this] {
    return count(
        LogLevel::kError,
        "getURLRequestWithCompletionHandler: underlying Wirepath has been invalidated with error gone. "
        "Ignoring GET request.");
  };
  EXPECT_EQ(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).version, "1.0");
  waitFor([&attempts] { return attempts() == 1; });
  waitFor([this, &attempts] {
    EXPECT_EQ(fetcher_->fetchStorebagForEnvironmentAndClientType(kTessel).version, "1.0");
    return attempts() >= 2;
  });
  fetcher_.reset();
  waitFor([this] { return platform_.workers.activity().isIdle; });  // a third may be under way
  platform_.log.takeErrors();
}

}  // namespace
}  // namespace zun
