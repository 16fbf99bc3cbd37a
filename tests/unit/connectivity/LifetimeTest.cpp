#include <regex>

#include "unit/connectivity/LifetimeTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

// --- Activation ------------------------------------------------------------------

TEST_F(LifetimeTest, CreationLogsDelegateZeroBecauseThereIsNoURLSessionYet) {
  make(kPOSTMode);
  EXPECT_EQ(debugLines(),
            std::vector<std::string>{"ReportingSessionConnectivityHelper created with delegate 0"});
  EXPECT_TRUE(urlSessions_.sessions.empty());
}

TEST_F(LifetimeTest, ActivationIsLoggedBeforeAndAfterTheURLSessionExists) {
  make(kPOSTMode).activate(30);
  EXPECT_EQ(count("activate: activating connectivity helper for Wirepath with ID <inactive>"), 1);
  crank();
  const std::string created =
      lineStarting("Wirepath created and activated with ID <" + helperID() + ">, delegate ");
  EXPECT_TRUE(std::regex_match(created, std::regex(".*, delegate -?[0-9]+"))) << created;
}

TEST_F(LifetimeTest, OrdinaryModesNameTheirURLSessionByAFreshUUID) {
  makeActive(kGETMode);
  EXPECT_TRUE(std::regex_match(helperID(), std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")))
      << helperID();
  EXPECT_EQ(urlSessions_.configurations.back().identifier, "");
}

TEST_F(LifetimeTest, BackgroundModesNameTheirURLSessionByTheConfigurationsIdentifier) {
  for (const ConnectionMode mode : {kBackgroundUploadMode, kBackgroundGETMode}) {
    makeActive(mode);
    EXPECT_EQ(helperID(), urlSessions_.configurations.back().identifier);
    EXPECT_EQ(helperID().size(), 36U);
  }
}

TEST_F(LifetimeTest, SecondActivationOnlySetsTheTimeoutAndSaysSo) {
  makeActive(kPOSTMode, 30);
  helper_->activate(7);
  crank();
  EXPECT_EQ(count("activate: activating connectivity helper for Wirepath with ID <" + helperID() + ">"), 1);
  EXPECT_EQ(
      count("activate: connectivity helper is already active for Wirepath with ID <" + helperID() + ">"), 1);
  EXPECT_EQ(urlSessions_.sessions.size(), 1U);
  EXPECT_EQ(countStarting("Wirepath created and activated"), 1);
  increment();
  decrement();
  EXPECT_EQ(platform_.timers.started().back().firstFiring, 7s);
}

TEST_F(LifetimeTest, ActivationOverridesAnEarlierTimeout) {
  make(kPOSTMode).setReleaseTimeout(99);
  helper_->activate(12);
  crank();
  decrement();
  EXPECT_EQ(platform_.timers.started().back().firstFiring, 12s);
}

TEST_F(LifetimeTest, TimeoutIs30SecondsUntilSomebodySetsAnother) {
  make(kPOSTMode);
  decrement();
  EXPECT_EQ(platform_.timers.started().back().firstFiring, 30s);
  helper_->setReleaseTimeout(5);
  decrement();
  EXPECT_EQ(platform_.timers.started().back().firstFiring, 5s);
}

TEST_F(LifetimeTest, LargestTimeoutIsKeptWhole) {
  make(kPOSTMode).setReleaseTimeout(UINT32_MAX);
  decrement();
  EXPECT_EQ(platform_.timers.started().back().firstFiring, std::chrono::seconds(UINT32_MAX));
}

// --- Usage count and release timer -----------------------------------------------

TEST_F(LifetimeTest, OwnerHearsZeroWhen30SecondsHavePassedAfterTheLastDecrement) {
  makeActive(kPOSTMode, 30);
  increment();
  decrement();
  const auto started = platform_.timers.started();
  ASSERT_EQ(started.size(), 1U);
  EXPECT_EQ(started[0].firstFiring, 30s);
  EXPECT_EQ(started[0].leeway, 100ms);
  EXPECT_FALSE(started[0].interval);
  advance(30s - 1ns);
  EXPECT_EQ(heard_, Counts{});
  advance(1ns);
  EXPECT_EQ(heard_, Counts{0});
  advance(1h);
  EXPECT_EQ(heard_, Counts{0});
  EXPECT_EQ(platform_.timers.running(), 0U);
}

TEST_F(LifetimeTest, FullRoundOfUseIsLoggedStepByStep) {
  makeActive(kPOSTMode, 30);
  serve(2);
  platform_.log.clear();
  increment();
  decrement();
  advance(30s);
  const std::string id = helperID();
  EXPECT_EQ(
      debugLines(),
      (std::vector<std::string>{
          "stopConnectivityHelperReleaseTimer: stopping connectivity helper release timer for Wirepath with "
          "ID <" +
              id + ">",
          "ownerIncrementUsageCount: connectivity helper incremented usage count for Wirepath with ID <" +
              id + ">. _usageCount=1, _totalSessionsServedCount=2",
          "ownerDecrementUsageCountWithBlock: connectivity helper decremented usage count for Wirepath with "
          "ID <" +
              id + ">. _usageCount=0, _totalSessionsServedCount=2",
          "ownerDecrementUsageCountWithBlock: Usage count for Wirepath with ID <" + id +
              "> is equal to 0. Starting connectivity helper release timer",
          "startConnectivityHelperReleaseTimerWithBlock: started connectivity helper release timer for "
          "Wirepath with ID <" +
              id + ">",
          "startConnectivityHelperReleaseTimerWithBlock: Connectivity helper release timer fired for "
          "Wirepath "
          "with ID <" +
              id + ">, timeout 30s",
          "startConnectivityHelperReleaseTimerWithBlock: Calling back owner of Connectivity helper with "
          "_usageCount=0",
      }));
}

TEST_F(LifetimeTest, NewOwnerWithinTheTimeoutStopsTheTimerAndTheWaitingCallbackHearsOne) {
  makeActive(kPOSTMode, 30);
  increment();
  decrement();
  advance(29s);
  increment();
  EXPECT_EQ(heard_, Counts{1});
  EXPECT_EQ(platform_.timers.running(), 0U);
  advance(60s);
  EXPECT_EQ(heard_, Counts{1});
  EXPECT_EQ(
      countStarting("startConnectivityHelperReleaseTimerWithBlock: Connectivity helper release timer fired"),
      0);
}

// The stopped timer's end is told of on the state queue, behind the decrement.
TEST_F(LifetimeTest, AnIncrementAndADecrementQueuedTogetherStopOneTimerAndStartAnother) {
  makeActive(kPOSTMode, 30);
  increment();
  decrement();
  advance(29s);
  Counts later;
  helper_->ownerIncrementUsageCount();
  helper_->ownerDecrementUsageCountWithBlock([&later](int32_t count) { later.push_back(count); },
                                             ownerQueue_);
  crank();
  EXPECT_EQ(heard_, Counts{1});  // of the owner that came, whatever has become of it since
  EXPECT_EQ(later, Counts{});
  advance(30s - 1ns);
  EXPECT_EQ(later, Counts{});
  advance(1ns);
  EXPECT_EQ(later, Counts{0});
  EXPECT_EQ(heard_, Counts{1});
}

// The end of a timer that has fired is told of on the state queue as well.
TEST_F(LifetimeTest, ATimerThatHasFiredLeavesTheNextOneAlone) {
  makeActive(kPOSTMode, 30);
  increment();
  decrement();
  platform_.clock.advance(30s);
  platform_.timers.fireDue();
  helper_->ownerDecrementUsageCountWithBlock([this](int32_t count) { heard_.push_back(100 + count); },
                                             ownerQueue_);
  crank();
  EXPECT_EQ(heard_, Counts{0});
  advance(30s);
  EXPECT_EQ(heard_, (Counts{0, 100}));
}

TEST_F(LifetimeTest, DecrementWhileOthersUseTheHelperNotifiesTheOwnerAtOnce) {
  makeActive(kPOSTMode, 30);
  increment();
  increment();
  increment();
  decrement();
  EXPECT_EQ(heard_, Counts{2});
  EXPECT_EQ(platform_.timers.running(), 0U);
  EXPECT_EQ(count("ownerDecrementUsageCountWithBlock: Usage count for Wirepath with ID <" + helperID() +
                  "> is greater than 0. Notifying owner that _usageCount=2, _totalSessionsServedCount=0"),
            1);
}

TEST_F(LifetimeTest, CallbackHearsTheCountOfTheMomentWhenItRuns) {
  makeActive(kPOSTMode, 30);
  increment();
  increment();
  // The owner's queue is busy for as long as this turn lasts.
  ownerQueue_->sync([this] {
    helper_->ownerDecrementUsageCountWithBlock(callback(), ownerQueue_);
    helper_->ownerIncrementUsageCount();
    helper_->ownerIncrementUsageCount();
    crank();
    EXPECT_EQ(heard_, Counts{});
  });
  crank();
  EXPECT_EQ(heard_, Counts{3});
}

TEST_F(LifetimeTest, TimerCallbackHearsTheCountOfTheMomentWhenItRuns) {
  makeActive(kPOSTMode, 30);
  increment();
  decrement();
  ownerQueue_->sync([this] {
    advance(30s);
    helper_->ownerIncrementUsageCount();
    crank();
    EXPECT_EQ(heard_, Counts{});
  });
  crank();
  EXPECT_EQ(heard_, Counts{1});
  EXPECT_EQ(
      count("startConnectivityHelperReleaseTimerWithBlock: Calling back owner of Connectivity helper with "
            "_usageCount=1"),
      1);
}

TEST_F(LifetimeTest, DecrementAtZeroLeavesZeroAndArmsTheTimerAgain) {
  makeActive(kPOSTMode, 30);
  decrement();
  EXPECT_EQ(countStarting("ownerDecrementUsageCountWithBlock: connectivity helper decremented"), 0);
  EXPECT_EQ(platform_.timers.started().size(), 1U);
  decrement();
  EXPECT_EQ(platform_.timers.started().size(), 2U);
  increment();
  EXPECT_EQ(
      countStarting("ownerIncrementUsageCount: connectivity helper incremented usage count for Wirepath with "
                    "ID <" +
                    helperID() + ">. _usageCount=1,"),
      1);
}

TEST_F(LifetimeTest, TimerStartedOverAnotherTakesItsPlaceAndTheFirstFiringAnswers) {
  makeActive(kPOSTMode, 30);
  const auto replaced = std::make_shared<int>(0);
  const std::weak_ptr<int> replacedAlive = replaced;
  helper_->ownerDecrementUsageCountWithBlock([replaced](int32_t) { ADD_FAILURE() << "called"; }, ownerQueue_);
  crank();
  advance(10s);
  decrement();
  EXPECT_EQ(platform_.timers.running(), 2U);  // the first was not cancelled
  EXPECT_EQ(replaced.use_count(), 1);         // but its callback is gone
  advance(20s);
  EXPECT_EQ(heard_, Counts{0});
  advance(10s);
  EXPECT_EQ(heard_, Counts{0});
  EXPECT_EQ(platform_.timers.running(), 0U);
}

TEST_F(LifetimeTest, IncrementStopsOnlyTheNewestTimerAndTheOldOneFiresWithoutACallback) {
  makeActive(kPOSTMode, 30);
  decrement();
  decrement();
  increment();
  EXPECT_EQ(heard_, Counts{1});
  advance(30s);
  EXPECT_EQ(heard_, Counts{1});
  EXPECT_EQ(
      countStarting("startConnectivityHelperReleaseTimerWithBlock: Connectivity helper release timer fired"),
      1);
}

TEST_F(LifetimeTest, CallbackWithoutAQueueComesOnTheHelpersOwn) {
  makeActive(kPOSTMode, 30);
  helper_->ownerDecrementUsageCountWithBlock(callback(), nullptr);
  crank();
  advance(30s);
  EXPECT_EQ(heard_, Counts{0});
  helper_->ownerDecrementUsageCountWithBlock(callback(), nullptr);
  crank();
  increment();
  EXPECT_EQ(heard_, (Counts{0, 1}));
}

TEST_F(LifetimeTest, DecrementWithoutACallbackIsHarmless) {
  makeActive(kPOSTMode, 30);
  helper_->ownerDecrementUsageCountWithBlock(nullptr, ownerQueue_);
  crank();
  advance(30s);
  helper_->setReleaseTimeout(0);
  helper_->ownerDecrementUsageCountWithBlock(nullptr, nullptr);
  crank();
  EXPECT_EQ(platform_.timers.running(), 0U);
}

TEST_F(LifetimeTest, TimeoutZeroTellsTheOwnerOneAtOnceAndHandsTheReferencesBack) {
  makeActive(kPOSTMode, 0);
  increment();
  serve(3);
  decrement();
  EXPECT_EQ(heard_, Counts{1});
  EXPECT_EQ(handedBack(), References{3});
  EXPECT_EQ(platform_.timers.running(), 0U);
  EXPECT_EQ(count("startConnectivityHelperReleaseTimerWithBlock: Special case of dealing with ever-lasting "
                  "connectivity helper " +
                  helperID()),
            1);
  EXPECT_EQ(
      count("startConnectivityHelperReleaseTimerWithBlock: release 3 Quorx transactions for ever-lasting "
            "connectivity helper " +
            helperID()),
      1);
}

TEST_F(LifetimeTest, HelperKeptForEverHandsItsReferencesBackEachTimeItFallsIdle) {
  makeActive(kPOSTMode, 0);
  for (int round = 1; round <= 3; ++round) {
    increment();
    serve(round);
    decrement();
  }
  EXPECT_EQ(handedBack(), (References{1, 2, 3}));
  EXPECT_EQ(heard_, (Counts{1, 1, 1}));
}

}  // namespace
}  // namespace zun
