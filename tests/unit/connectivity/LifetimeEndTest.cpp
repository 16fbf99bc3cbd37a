#include "unit/connectivity/LifetimeTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

// --- Process-alive references ----------------------------------------------------

TEST_F(LifetimeTest, ServedSessionIsCountedAtOnceAndLogged) {
  make(kPOSTMode);
  serve(1);
  EXPECT_EQ(count("Total Sessions Served Count is incremented for Wirepath with ID <inactive>"), 1);
}

TEST_F(LifetimeTest, InvalidatingAnInactiveHelperHandsItsReferencesBackAtOnce) {
  make(kPOSTMode);
  serve(2);
  helper_->invalidate();
  crank();
  EXPECT_EQ(handedBack(), References{2});
  EXPECT_EQ(count("ReportingSessionConnectivityHelper:invalidate: release 2 Quorx transactions for inactive "
                  "connectivity helper"),
            1);
}

TEST_F(LifetimeTest, InvalidatingAnActiveHelperHandsItsReferencesBackOnlyAfterItsTasks) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/post", {.body = "late", .gate = gate});
  makeActive(kPOSTMode);
  serve(2);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  ASSERT_TRUE(server_.waitForRequests(1));
  helper_->invalidate();
  crank();
  const std::string id = helperID();
  EXPECT_EQ(count("ReportingSessionConnectivityHelper:invalidate: Wirepath with ID <" + id + ">"), 1);
  EXPECT_EQ(handedBack(), References{});
  EXPECT_EQ(result->calls, 0);
  gate->open();
  ASSERT_TRUE(crankUntil([&] {
    return count("didBecomeInvalidWithError: session <" + id + "> invalidated with error (null)") == 1;
  }));
  EXPECT_EQ(result->calls, 1);
  EXPECT_EQ(result->data, "late");
  EXPECT_EQ(handedBack(), References{2});
  EXPECT_EQ(count("didBecomeInvalidWithError: release 2 Quorx transactions for session " + id), 1);
}

TEST_F(LifetimeTest, ReferencesAreHandedBackOnce) {
  make(kPOSTMode);
  serve(2);
  helper_->releaseAllQuorxTransactions();
  helper_->releaseAllQuorxTransactions();
  EXPECT_EQ(handedBack(), (References{2, 0}));
}

TEST_F(LifetimeTest, WithoutADelegateReferencesAreOnlyForgotten) {
  holder_.reset();
  make(kGETMode);
  serve(2);
  helper_->invalidate();
  helper_->invalidate();
  crank();
  EXPECT_EQ(count("ReportingSessionConnectivityHelper:invalidate: release 2 Quorx transactions for inactive "
                  "connectivity helper"),
            1);
  EXPECT_EQ(count("ReportingSessionConnectivityHelper:invalidate: release 0 Quorx transactions for inactive "
                  "connectivity helper"),
            1);
}

TEST_F(LifetimeTest, DelegateThatHasGoneIsNotMissed) {
  make(kGETMode);
  holder_.reset();
  serve(1);
  helper_->invalidate();
  crank();
  EXPECT_EQ(count("ReportingSessionConnectivityHelper:invalidate: release 1 Quorx transactions for inactive "
                  "connectivity helper"),
            1);
}

// --- Ends ------------------------------------------------------------------------

TEST_F(LifetimeTest, EndOfAHelperIsLoggedAndStopsTheTimer) {
  makeActive(kPOSTMode, 30);
  const std::string id = helperID();
  decrement();
  platform_.log.clear();
  helper_.reset();
  EXPECT_EQ(debugLines(), (std::vector<std::string>{
                              "ReportingSessionConnectivityHelper dealloced with ID <" + id + ">",
                              "stopConnectivityHelperReleaseTimer: stopping connectivity helper release "
                              "timer for Wirepath with ID <" +
                                  id + ">"}));
  EXPECT_EQ(platform_.timers.running(), 0U);
  crank();
  EXPECT_EQ(heard_, Counts{0});  // who waits for the timer is not left waiting
}

TEST_F(LifetimeTest, RunningTimerDoesNotKeepItsHelper) {
  makeActive(kPOSTMode, UINT32_MAX);
  decrement();
  const std::weak_ptr<Helper> alive = helper_;
  helper_.reset();
  EXPECT_TRUE(alive.expired());
}

TEST_F(LifetimeTest, HelperDroppedWhileActiveEndsItsURLSessionAndHandsItsReferencesBack) {
  makeActive(kPOSTMode);
  serve(4);
  const std::weak_ptr<Helper> alive = helper_;
  const std::weak_ptr<URLSessionDelegate> delegate = urlSessions_.delegates.back();
  helper_.reset();
  EXPECT_TRUE(alive.expired());
  EXPECT_EQ(handedBack(), References{});  // never on the thread that drops it
  ASSERT_TRUE(crankUntil([&] { return delegate.expired(); }));
  EXPECT_EQ(handedBack(), References{4});
  EXPECT_EQ(urlSessions_.invalidations, 1);
}

TEST_F(LifetimeTest, HelperDroppedWithARunningTaskLivesUntilTheTaskHasEnded) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/post", {.body = "late", .gate = gate});
  makeActive(kPOSTMode);
  serve(1);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  const std::weak_ptr<Helper> alive = helper_;
  helper_.reset();
  EXPECT_FALSE(alive.expired());
  ASSERT_TRUE(server_.waitForRequests(1));
  crank();
  EXPECT_EQ(handedBack(), References{});
  gate->open();
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data, "late");
  ASSERT_TRUE(crankUntil([&] { return alive.expired() && !handedBack().empty(); }));
  EXPECT_EQ(handedBack(), References{1});
}

TEST_F(LifetimeTest, InvalidatedHelperStaysUntilItsURLSessionHasEndedThoughNobodyHoldsIt) {
  makeActive(kPOSTMode);
  serve(1);
  const std::weak_ptr<Helper> alive = helper_;
  helper_->invalidate();
  helper_.reset();
  ASSERT_TRUE(crankUntil([&] { return alive.expired(); }));
  EXPECT_EQ(countStarting("didBecomeInvalidWithError: session <"), 1);
  EXPECT_EQ(handedBack(), References{1});
}

TEST_F(LifetimeTest, ReferenceTakenOverAfterTheEndOfTheURLSessionIsNotLost) {
  makeActive(kPOSTMode);
  helper_->invalidate();
  ASSERT_TRUE(crankUntil([this] { return countStarting("didBecomeInvalidWithError: session <") == 1; }));
  serve(1);
  helper_.reset();
  ASSERT_TRUE(crankUntil([this] { return holder_->total() == 1; }));
}

TEST_F(LifetimeTest, HelperWhoseURLSessionEndedOnItsOwnCanStillBeInvalidatedAndGoes) {
  makeActive(kPOSTMode);
  serve(1);
  const std::weak_ptr<Helper> alive = helper_;
  urlSessions_.sessions.back().lock()->finishTasksAndInvalidate();
  ASSERT_TRUE(crankUntil([this] { return countStarting("didBecomeInvalidWithError: session <") == 1; }));
  EXPECT_EQ(handedBack(), References{1});
  helper_->invalidate();
  crank();
  helper_.reset();
  ASSERT_TRUE(crankUntil([&] { return alive.expired(); }));
}

TEST_F(LifetimeTest, HelperInvalidatedTwiceHandsBackNothingTwice) {
  makeActive(kPOSTMode);
  serve(1);
  helper_->invalidate();
  helper_->invalidate();
  ASSERT_TRUE(crankUntil([this] { return countStarting("didBecomeInvalidWithError: session <") == 1; }));
  EXPECT_EQ(holder_->total(), 1U);
}

}  // namespace
}  // namespace zun
