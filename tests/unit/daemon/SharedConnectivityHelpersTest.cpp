#include "daemon/SharedConnectivityHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include "support/TestPlatform.h"
#include "util/Conversions.h"
#include "zunreporting/Keys.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class HandedBack final : public QuorxTransactionHolder {
 public:
  RecursiveMutex& objectLock() override { return lock_; }
  void releaseQuorxTransactions(uint32_t count) override { total_ += count; }
  uint64_t total() {
    const RecursiveMutexLock lock(lock_);
    return total_;
  }

 private:
  RecursiveMutex lock_;
  uint64_t total_ = 0;
};

std::string line(const std::string& beginning, const std::string& key, const std::string& end = {}) {
  return beginning + key + end;
}
const std::string kRequesting =
    "requestSharedConnectivityHelperForReportingSession: Requesting shared connectivity helper for "
    "userInfoKey ";
const std::string kFound =
    "requestSharedConnectivityHelperForReportingSession: Found existing shared connectivity helper for "
    "userInfoKey ";
const std::string kCreating =
    "requestSharedConnectivityHelperForReportingSession: Creating shared connectivity helper for "
    "userInfoKey ";
const std::string kIncrementing =
    "requestSharedConnectivityHelperForReportingSession: Incrementing usage of shared connectivity helper "
    "for "
    "userInfoKey ";
const std::string kReleasing =
    "releaseSharedConnectivityHelperForReportingSession: Releasing shared connectivity helper for "
    "userInfoKey ";
const std::string kDecrementing =
    "releaseSharedConnectivityHelperForReportingSession: Decrementing usage count of shared connectivity "
    "helper for "
    "userInfoKey ";
const std::string kReachedZero =
    "releaseSharedConnectivityHelperForReportingSession: Usage count of shared connectivity helper for "
    "userInfoKey ";
const std::string kReachedZeroEnd = " reached zero. Invalidating the helper";

/// The table on queues that the test cranks and time that it moves.
class SharedConnectivityHelpersTest : public ::testing::Test {
 protected:
  using HelperPointer = std::shared_ptr<ReportingSessionConnectivityHelper>;

  SharedConnectivityHelpersTest()
      : platform_(&executor_),
        holder_(std::make_shared<HandedBack>()),
        helpers_(std::make_unique<SharedConnectivityHelpers>(platform_.services, holder_)) {}

  void TearDown() override {
    helpers_.reset();
    EXPECT_TRUE(crankUntil([this] { return helpersAlive() == 0; })) << "a helper is still alive";
    EXPECT_EQ(platform_.log.takeErrors(), std::vector<std::string>{});
  }

  int helpersAlive() const {
    int alive = 0;
    for (const std::string& text : platform_.log.linesOf(LogLevel::kDebug)) {
      alive += text.starts_with("ReportingSessionConnectivityHelper created with delegate");
      alive -= text.starts_with("ReportingSessionConnectivityHelper dealloced with ID <");
    }
    return alive;
  }
  bool crankUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (true) {
      executor_.runAll();
      if (condition()) return true;
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(1ms);
    }
  }
  void advance(std::chrono::nanoseconds by) {
    platform_.clock.advance(by);
    platform_.timers.fireDue();
    executor_.runAll();
  }

  HelperPointer copy(const std::string& key, ConnectionMode mode = kPOSTMode) {
    HelperPointer helper = helpers_->copySharedConnectivityHelper(key, mode);
    executor_.runAll();
    return helper;
  }
  /// As a session does: gives the helper back and lets go of it.
  void release(const std::string& key, HelperPointer& helper) {
    helpers_->releaseSharedConnectivityHelper(key, helper);
    helper.reset();
    executor_.runAll();
  }
  int count(const std::string& text) const { return platform_.log.count(LogLevel::kDebug, text); }

  static std::string key(const char* clientName, const char* serviceName) {
    Dictionary userInfo;
    userInfo.set(zunreporting::kZunReportingUserInfoClientName, clientName);
    userInfo.set(zunreporting::kZunReportingUserInfoServiceName, serviceName);
    return connectivityUserInfoKey(userInfo);
  }

  ManualExecutor executor_;
  TestPlatform platform_;
  std::shared_ptr<HandedBack> holder_;
  std::unique_ptr<SharedConnectivityHelpers> helpers_;
};

TEST_F(SharedConnectivityHelpersTest, ClientNamesThatDifferOnlyInLetterCaseShareAHelper) {
  const auto first = copy(key("A", "Service"));
  const auto second = copy(key("a", "Service"));
  EXPECT_EQ(first, second);
  EXPECT_EQ(count(line(kCreating, "a:service")), 1);
  EXPECT_EQ(count(line(kFound, "a:service")), 1);
}

TEST_F(SharedConnectivityHelpersTest, SessionWithoutNamesGetsTheHelperUnderTheColon) {
  const auto helper = copy(connectivityUserInfoKey(Dictionary()));
  EXPECT_NE(helper, nullptr);
  EXPECT_EQ(count(line(kCreating, ":")), 1);
  EXPECT_EQ(copy(":"), helper);
}

TEST_F(SharedConnectivityHelpersTest, DifferentServicesHaveDifferentHelpers) {
  EXPECT_NE(copy("a:one"), copy("a:two"));
}

TEST_F(SharedConnectivityHelpersTest, RequestIsLoggedStepByStep) {
  const auto helper = helpers_->copySharedConnectivityHelper("a:b", kPOSTMode);
  EXPECT_EQ(platform_.log.linesOf(LogLevel::kDebug),
            (std::vector<std::string>{line(kRequesting, "a:b"), line(kCreating, "a:b"),
                                      "ReportingSessionConnectivityHelper created with delegate 0",
                                      line(kIncrementing, "a:b")}));
  executor_.runAll();
  EXPECT_EQ(
      count("ownerIncrementUsageCount: connectivity helper incremented usage count for Wirepath with ID "
            "<inactive>. _usageCount=1, _totalSessionsServedCount=0"),
      1);
}

TEST_F(SharedConnectivityHelpersTest, ExistingHelperKeepsItsModeWhateverIsAskedFor) {
  const auto first = copy("a:b", kPOSTMode);
  const auto second = copy("a:b", kGETMode);
  EXPECT_EQ(first, second);
  first->activate(30);
  first->getURLRequestWithCompletionHandler({}, [](auto, const auto&, const auto&) {});
  executor_.runAll();
  EXPECT_EQ(platform_.log.takeErrors(),
            std::vector<std::string>{
                "getURLRequestWithCompletionHandler: wrong mode for GET operation detected 4"});
}

TEST_F(SharedConnectivityHelpersTest, ReleaseReturnsBeforeItsWorkIsDone) {
  auto helper = copy("a:b");
  helpers_->releaseSharedConnectivityHelper("a:b", helper);
  EXPECT_EQ(count(line(kReleasing, "a:b")), 0);
  executor_.runAll();
  EXPECT_EQ(count(line(kReleasing, "a:b")), 1);
  EXPECT_EQ(count(line(kDecrementing, "a:b")), 1);
}

TEST_F(SharedConnectivityHelpersTest, ReleaseOfAnUnknownKeyOnlyLogsItsFirstLine) {
  helpers_->releaseSharedConnectivityHelper("no:body", {});
  executor_.runAll();
  EXPECT_EQ(platform_.log.linesOf(LogLevel::kDebug), std::vector<std::string>{line(kReleasing, "no:body")});
}

TEST_F(SharedConnectivityHelpersTest, NewSessionWithinTheTimeoutGetsTheSameHelperAndStopsItsTimer) {
  auto helper = copy("a:b");
  auto* const first = helper.get();
  helper->activate(30);
  release("a:b", helper);
  EXPECT_EQ(platform_.timers.running(), 1U);
  advance(29s);
  helper = copy("a:b");
  EXPECT_EQ(helper.get(), first);
  EXPECT_EQ(platform_.timers.running(), 0U);
  advance(1h);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 0);
  EXPECT_EQ(copy("a:b").get(), first);
}

TEST_F(SharedConnectivityHelpersTest, NewSessionAfterTheTimeoutGetsANewHelper) {
  auto helper = copy("a:b");
  const std::weak_ptr<ReportingSessionConnectivityHelper> first = helper;
  helper->activate(30);
  release("a:b", helper);
  advance(30s);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 1);
  EXPECT_TRUE(crankUntil([&] { return first.expired(); }));
  helper = copy("a:b");
  EXPECT_EQ(count(line(kCreating, "a:b")), 2);
}

TEST_F(SharedConnectivityHelpersTest, HelperStaysWhileAnotherSessionUsesIt) {
  auto one = copy("a:b");
  auto other = copy("a:b");
  other->activate(30);
  release("a:b", one);
  advance(1h);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 0);
  EXPECT_EQ(copy("a:b"), other);
}

TEST_F(SharedConnectivityHelpersTest, HelperWithTimeoutZeroIsNeverRemoved) {
  auto helper = copy("a:b");
  auto* const first = helper.get();
  helper->activate(0);
  helper->incrementTotalSessionsServedCount();
  release("a:b", helper);
  advance(24h);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 0);
  EXPECT_EQ(holder_->total(), 1U);
  EXPECT_EQ(copy("a:b").get(), first);
}

TEST_F(SharedConnectivityHelpersTest, HelperThatWasNeverActivatedHandsReferencesBackAtItsEnd) {
  auto helper = copy("a:b");
  helper->incrementTotalSessionsServedCount();
  release("a:b", helper);
  EXPECT_EQ(holder_->total(), 0U);
  advance(30s);
  EXPECT_EQ(holder_->total(), 1U);
}

// The second release comes before the first one's callback runs, which so hears 0.
TEST_F(SharedConnectivityHelpersTest, SessionsThatEndTogetherLeaveTheirHelperItsWholeTimeout) {
  const auto one = copy("a:b");
  const auto other = copy("a:b");
  one->incrementTotalSessionsServedCount();
  helpers_->releaseSharedConnectivityHelper("a:b", one);
  helpers_->releaseSharedConnectivityHelper("a:b", other);
  executor_.runAll();
  advance(30s - 1ns);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 0);
  EXPECT_EQ(holder_->total(), 0u);
  advance(1ns);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 1);
  EXPECT_EQ(holder_->total(), 1u);
  EXPECT_NE(copy("a:b"), other);
}

// A session that comes and goes at once: its increment stops the timer, and its decrement
// starts another, before anybody has heard of either.
TEST_F(SharedConnectivityHelpersTest, ASessionThatComesAndGoesStartsTheTimeoutAnew) {
  auto helper = copy("a:b");
  release("a:b", helper);
  advance(29s);
  helper = helpers_->copySharedConnectivityHelper("a:b", kPOSTMode);
  release("a:b", helper);
  advance(30s - 1ns);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 0);
  advance(1ns);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 1);
}

// The callback of a timer that has run may itself be late.
TEST_F(SharedConnectivityHelpersTest, ASessionThatComesAndGoesWhenTheTimeIsUpStartsTheTimeoutAnew) {
  auto helper = copy("a:b");
  release("a:b", helper);
  platform_.clock.advance(30s);
  platform_.timers.fireDue();
  helper = helpers_->copySharedConnectivityHelper("a:b", kPOSTMode);
  release("a:b", helper);
  advance(30s - 1ns);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 0);
  advance(1ns);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 1);
}

// The helper's queue may be far behind the agent's, whatever number of jobs it runs at a time.
TEST_F(SharedConnectivityHelpersTest, HelperIsKeptForAnOwnerWhoseIncrementIsStillOnItsWay) {
  for (int jobs = 0; jobs < 130; ++jobs) {
    const std::string name = std::to_string(jobs) + ":";
    auto helper = copy(name);
    helpers_->releaseSharedConnectivityHelper(name, helper);
    executor_.runAll();
    for (int job = 0; job < jobs; ++job) helper->setReleaseTimeout(30);
    platform_.clock.advance(30s);
    platform_.timers.fireDue();
    const auto again = helpers_->copySharedConnectivityHelper(name, kPOSTMode);
    executor_.runAll();
    EXPECT_EQ(again, helper);
    EXPECT_EQ(count(line(kReachedZero, name, kReachedZeroEnd)), 0) << jobs;
  }
}

TEST_F(SharedConnectivityHelpersTest, ReleaseOfAHelperThatIsNotInTheTableLeavesItsSuccessorAlone) {
  auto helper = copy("a:b");
  const auto first = helper;
  release("a:b", helper);
  advance(30s);
  const auto successor = copy("a:b");
  ASSERT_NE(successor, first);
  helpers_->releaseSharedConnectivityHelper("a:b", first);
  executor_.runAll();
  EXPECT_EQ(count(line(kDecrementing, "a:b")), 1);
  advance(30s);
  EXPECT_EQ(copy("a:b"), successor);
}

TEST_F(SharedConnectivityHelpersTest, LateCallbackFindsTheTableGone) {
  auto helper = copy("a:b");
  helper->activate(30);
  release("a:b", helper);
  helpers_.reset();
  advance(30s);
  EXPECT_EQ(count(line(kReachedZero, "a:b", kReachedZeroEnd)), 0);
}

// A client that makes up a new name with every call must not fill the daemon's memory.
TEST(SharedConnectivityHelpersBoundTest, BeyondTheBoundHelpersAreNotSharedAndHandBackTheirReferences) {
  ManualExecutor executor;
  TestPlatform platform(&executor);
  const auto holder = std::make_shared<HandedBack>();
  SharedConnectivityHelpers helpers(platform.services, holder);
  for (size_t i = 0; i < SharedConnectivityHelpers::kMaximumHelpers; ++i)
    (void)helpers.copySharedConnectivityHelper(std::to_string(i) + ":", kPOSTMode);

  auto first = helpers.copySharedConnectivityHelper("beyond:", kPOSTMode);
  auto second = helpers.copySharedConnectivityHelper("beyond:", kPOSTMode);
  EXPECT_NE(first, second);
  EXPECT_EQ(helpers.copySharedConnectivityHelper("0:", kPOSTMode),
            helpers.copySharedConnectivityHelper("0:", kPOSTMode));
  EXPECT_EQ(platform.log.takeErrors(),
            std::vector<std::string>{
                "requestSharedConnectivityHelperForReportingSession: 8192 connectivity helpers "
                "are shared already, further ones are not"});

  first->incrementTotalSessionsServedCount();
  helpers.releaseSharedConnectivityHelper("beyond:", first);
  first.reset();
  second.reset();
  executor.runAll();
  EXPECT_EQ(holder->total(), 1u);
}

// Sessions of few clients come and go on many threads while timers fire.
TEST(SharedConnectivityHelpersConcurrencyTest, EveryReferenceIsHandedBackOnce) {
  TestPlatform platform;
  const auto holder = std::make_shared<HandedBack>();
  auto helpers = std::make_unique<SharedConnectivityHelpers>(platform.services, holder);
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::atomic<bool> isOver{false};
  std::thread clock([&] {
    while (!isOver) {
      platform.clock.advance(1s);
      platform.timers.fireDue();
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  std::latch start(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds; ++i) {
        const std::string key = std::to_string((thread + i) % 3) + ":service";
        auto helper = helpers->copySharedConnectivityHelper(key, kPOSTMode);
        if (i % 2 == 0) helper->activate(2);
        helper->incrementTotalSessionsServedCount();
        helpers->releaseSharedConnectivityHelper(key, helper);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (holder->total() < kThreads * kRounds && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(1ms);
  EXPECT_EQ(holder->total(), static_cast<uint64_t>(kThreads * kRounds));
  isOver = true;
  clock.join();
  helpers.reset();
  const auto alive = [&platform] {
    int number = 0;
    for (const std::string& text : platform.log.linesOf(LogLevel::kDebug)) {
      number += text.starts_with("ReportingSessionConnectivityHelper created with delegate");
      number -= text.starts_with("ReportingSessionConnectivityHelper dealloced with ID <");
    }
    return number;
  };
  while (alive() > 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(alive(), 0);
  EXPECT_EQ(platform.log.takeErrors(), std::vector<std::string>{});
}

}  // namespace
}  // namespace zun
