#include <atomic>
#include <latch>

#include "unit/connectivity/ConnectivityTest.h"

namespace zun {
namespace {

/// Helpers on real worker threads, used by many threads at once.
class ConcurrencyTest : public ::testing::Test {
 protected:
  using Helper = ReportingSessionConnectivityHelper;
  static constexpr int kThreads = 4;
  static constexpr int kRounds = 40;

  ConcurrencyTest()
      : platform_(nullptr, HTTPSTestServer::caFile()), holder_(std::make_shared<CountingHolder>()) {}

  void TearDown() override {
    EXPECT_TRUE(waitUntil([this] { return helpersAlive() == 0; })) << "a helper is still alive";
    EXPECT_EQ(platform_.log.takeErrors(), std::vector<std::string>{});
  }

  int helpersAlive() const {
    int alive = 0;
    for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
      alive += line.starts_with("ReportingSessionConnectivityHelper created with delegate");
      alive -= line.starts_with("ReportingSessionConnectivityHelper dealloced with ID <");
    }
    return alive;
  }

  static bool waitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

  /// Runs `body` on several threads that start together, and waits for them.
  static void onThreads(const std::function<void(int thread)>& body) {
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&body, &start, i] {
        start.arrive_and_wait();
        body(i);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  static URLRequest request(const std::string& url) {
    URLRequest request;
    request.url = url;
    request.method = "POST";
    request.body = std::make_shared<const std::string>("body");
    return request;
  }

  HTTPSTestServer server_;
  TestPlatform platform_;
  std::shared_ptr<CountingHolder> holder_;
};

TEST_F(ConcurrencyTest, OwnersComeAndGoWhileRequestsRunAndEveryReferenceIsHandedBack) {
  server_.answer("/post", {.body = "ok"});
  std::atomic<int> completed{0};
  std::atomic<int> heard{0};
  auto queue = SerialQueue::create("owner", platform_.services.executor);
  auto helper = Helper::create(platform_.services, holder_, kPOSTMode);
  helper->activate(30);
  onThreads([&](int) {
    for (int i = 0; i < kRounds; ++i) {
      helper->ownerIncrementUsageCount();
      helper->postURLRequestWithCompletionHandler(
          request(server_.url("/post")), [&completed](std::string data, const auto&, const auto& error) {
            EXPECT_FALSE(error);
            EXPECT_EQ(data, "ok");
            ++completed;
          });
      helper->incrementTotalSessionsServedCount();
      helper->ownerDecrementUsageCountWithBlock([&heard](int32_t) { ++heard; }, queue);
      if (i % 10 == 0) helper->releaseAllQuorxTransactions();
    }
  });
  helper->invalidate();
  helper.reset();
  EXPECT_TRUE(waitUntil([&] { return completed == kThreads * kRounds; }));
  EXPECT_TRUE(waitUntil([&] { return holder_->total() == kThreads * kRounds; }));
  queue->sync([] {});
}

TEST_F(ConcurrencyTest, InvalidationInTheMidstOfRequestsEndsEveryRequestOnce) {
  server_.answer("/post", {.body = "ok"});
  std::atomic<int> ended{0};
  auto helper = Helper::create(platform_.services, holder_, kPOSTMode);
  helper->activate(30);
  onThreads([&](int thread) {
    for (int i = 0; i < kRounds; ++i) {
      // Counts calls and drops alike: each completion is let go of once.
      std::shared_ptr<void> end(nullptr, [&ended](void*) { ++ended; });
      helper->postURLRequestWithCompletionHandler(request(server_.url("/post")),
                                                  [end](auto, const auto&, const auto&) {});
      helper->incrementTotalSessionsServedCount();
      if (thread == 0 && i == kRounds / 2) helper->invalidate();
      if (i % 7 == 0) helper->setReleaseTimeout(static_cast<uint32_t>(i));
    }
  });
  helper->invalidate();
  helper.reset();
  EXPECT_TRUE(waitUntil([&] { return ended == kThreads * kRounds; }));
  EXPECT_TRUE(waitUntil([&] { return holder_->total() == kThreads * kRounds; }));
}

TEST_F(ConcurrencyTest, HelpersMayBeDroppedOnAnyThreadWhileActiveAndTimed) {
  server_.answer("/post", {.body = "ok"});
  std::atomic<int> heard{0};
  std::atomic<int> completed{0};
  auto queue = SerialQueue::create("owner", platform_.services.executor);
  std::atomic<bool> isOver{false};
  std::thread clock([this, &isOver] {
    while (!isOver) {
      platform_.clock.advance(std::chrono::seconds(1));
      platform_.timers.fireDue();
      std::this_thread::yield();
    }
  });
  onThreads([&](int) {
    for (int i = 0; i < kRounds / 4; ++i) {
      auto helper = Helper::create(platform_.services, holder_, kPOSTMode);
      helper->activate(1);
      helper->ownerIncrementUsageCount();
      helper->postURLRequestWithCompletionHandler(
          request(server_.url("/post")), [&completed](auto, const auto&, const auto&) { ++completed; });
      helper->incrementTotalSessionsServedCount();
      helper->ownerDecrementUsageCountWithBlock(
          [&heard, weak = std::weak_ptr(helper)](int32_t) {
            ++heard;
            if (const auto stillThere = weak.lock()) stillThere->invalidate();
          },
          queue);
    }
  });
  const int helpers = kThreads * (kRounds / 4);
  EXPECT_TRUE(waitUntil([&] { return heard == helpers && completed == helpers; }));
  EXPECT_TRUE(waitUntil([&] { return holder_->total() == static_cast<uint64_t>(helpers); }));
  isOver = true;
  clock.join();
  queue->sync([] {});
}

// The helper's work takes the agent's lock while agents' threads call the helper under it.
TEST_F(ConcurrencyTest, HelperIsUsedUnderTheObjectLockWithoutDeadlock) {
  std::atomic<int> heard{0};
  auto queue = SerialQueue::create("owner", platform_.services.executor);
  auto helper = Helper::create(platform_.services, holder_, kPOSTMode);
  helper->activate(0);
  onThreads([&](int) {
    for (int i = 0; i < kRounds; ++i) {
      const RecursiveMutexLock lock(holder_->objectLock());
      helper->ownerIncrementUsageCount();
      helper->incrementTotalSessionsServedCount();
      helper->ownerDecrementUsageCountWithBlock([&heard](int32_t) { ++heard; }, queue);
      helper->releaseAllQuorxTransactions();
    }
  });
  EXPECT_TRUE(waitUntil([&] { return heard == kThreads * kRounds; }));
  EXPECT_TRUE(waitUntil([&] { return holder_->total() == kThreads * kRounds; }));
  helper.reset();
  queue->sync([] {});
}

}  // namespace
}  // namespace zun
