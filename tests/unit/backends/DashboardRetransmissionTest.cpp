#include "DashboardTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

class ReliableDashboardTest : public DashboardTest {
 protected:
  void TearDown() override {
    backend_.reset();  // whose last job still has to run
    DashboardTest::TearDown();
  }

  /// The datagram of one event, sent and arrived.
  std::string sendAndReceive(Dictionary payload = {{"k", "v"}}) {
    sendEvent(*backend_, std::move(payload));
    return server_.receiveIfThere().value_or(std::string());
  }

  std::shared_ptr<ZunReportingBackend> backend_ = make(reliableProfile());
};

TEST_F(ReliableDashboardTest, APacketIsRetransmittedAfter2And3And5And9TicksAndThenGivenUp) {
  const std::string original = sendAndReceive();
  std::vector<int> ticks;
  for (int number = 1; number <= 40; ++number) {
    tick();
    for (const std::string& copy : server_.receiveAllThere()) {
      EXPECT_EQ(copy, original);
      ticks.push_back(number);
    }
  }
  EXPECT_EQ(ticks, (std::vector{2, 5, 10, 19}));
}

// It stays for one tick after its fourth retransmission, within which it can still be
// acknowledged; clean-up tells when it has gone.
TEST_F(ReliableDashboardTest, ItIsGivenUpOnTheTickAfterItsFourthRetransmission) {
  sendAndReceive();
  for (int number = 1; number <= 19; ++number) tick();
  backend_->cleanup();
  executor_.runAll();
  EXPECT_EQ(platform_.timers.running(), 1U) << "something still waits";
  tick();
  EXPECT_EQ(platform_.timers.running(), 0U);
  expectDebugLine("DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.");
}

TEST_F(ReliableDashboardTest, AnAcknowledgedPacketIsNotSentAgain) {
  const std::string original = sendAndReceive();
  acknowledge(original);
  for (int i = 0; i < 30; ++i) tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
}

TEST_F(ReliableDashboardTest, TheFirst62BytesAreEnough) {
  acknowledge(sendAndReceive().substr(0, 62));
  for (int i = 0; i < 30; ++i) tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
}

TEST_F(ReliableDashboardTest, ShortAndGarbledAcknowledgementsAreIgnored) {
  const std::string original = sendAndReceive();
  std::string other = original;
  other[61] = '\x63';
  for (const std::string& bytes : {original.substr(0, 61), "1"s, ""s, std::string(2000, '\xFF'), other}) {
    acknowledge(bytes);
  }
  tick();
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
}

TEST_F(ReliableDashboardTest, AnAcknowledgementRemovesEveryPacketOfItsNumber) {
  for (int i = 1; i <= 3; ++i) {
    backend_->sendMessage(Dictionary{}, kEventTime, 1, 2, /*eventID=*/7, 0);
    backend_->sendMessage(Dictionary{}, kEventTime, 1, 2, /*eventID=*/8, 0);
  }
  executor_.runAll();
  const auto sent = server_.receiveAllThere();
  ASSERT_EQ(sent.size(), 6U);
  acknowledge(sent.front());
  tick();
  tick();
  EXPECT_EQ(eventsAtServer(), (std::vector{8, 8, 8}));
}

TEST_F(ReliableDashboardTest, AcknowledgementsFromAnotherAddressDoNotCount) {
  const std::string first = sendAndReceive();
  const std::string second = sendAndReceive();
  UDPTestServer stranger;
  server_.replyFrom(stranger, first);
  acknowledge(second);  // behind the other, so both have been there
  tick();
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
}

TEST_F(ReliableDashboardTest, The51stUnacknowledgedDatagramPushesOutTheOldest) {
  for (int i = 0; i < 51; ++i) sendEvent(*backend_);
  server_.receiveAllThere();
  tick();
  tick();
  const auto numbers = eventsAtServer();
  ASSERT_EQ(numbers.size(), 50U);
  EXPECT_EQ(numbers.front(), 2);
  EXPECT_EQ(numbers.back(), 51);
}

TEST_F(ReliableDashboardTest, Of10000UnacknowledgedEventsTheLast50AreKept) {
  for (int i = 0; i < 10'000; ++i) {
    sendEvent(*backend_);
    server_.receiveAllThere();
  }
  tick();
  tick();
  const auto numbers = eventsAtServer();
  ASSERT_EQ(numbers.size(), 50U);
  EXPECT_EQ(numbers.front(), 9951);
  EXPECT_EQ(numbers.back(), 10'000);
}

// Packets are looked at in the order in which they came, whatever leaves in between.
TEST_F(ReliableDashboardTest, PacketsOfDifferentAgesKeepTheirOwnSchedules) {
  sendEvent(*backend_);
  tick();
  sendEvent(*backend_);
  server_.receiveAllThere();
  std::vector<std::vector<int>> seen;
  for (int number = 2; number <= 6; ++number) {
    tick();
    seen.push_back(eventsAtServer());
  }
  EXPECT_EQ(seen, (std::vector<std::vector<int>>{{1}, {2}, {}, {1}, {2}}));
}

// The timer

TEST_F(ReliableDashboardTest, TheTimerRunsOnlyWhileSomethingWaits) {
  EXPECT_EQ(platform_.timers.running(), 1U);
  tick();
  EXPECT_EQ(platform_.timers.running(), 0U);
  const std::string original = sendAndReceive();
  EXPECT_EQ(platform_.timers.running(), 1U);
  acknowledge(original);
  acknowledge(sendAndReceive());
  EXPECT_EQ(platform_.timers.started().size(), 2U) << "an acknowledgement stops nothing";
  tick();
  EXPECT_EQ(platform_.timers.running(), 0U);
  sendAndReceive();
  for (int number = 1; number <= 19; ++number) tick();
  EXPECT_EQ(platform_.timers.running(), 1U);
  tick();  // it is given up
  EXPECT_EQ(platform_.timers.running(), 0U);
}

// As if it had never stopped: ticks are whole periods from the start.
TEST_F(ReliableDashboardTest, ATimerThatStartsAgainKeepsThePace) {
  tick();
  platform_.clock.advance(700ms);
  sendAndReceive();
  tick(299ms);
  tick(1ms);    // the third of all, its first
  tick(499ms);  // not yet the fourth
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  tick(1ms);
  EXPECT_EQ(eventsAtServer(), std::vector{1});
}

TEST_F(ReliableDashboardTest, WhatIsSentOnATickWaitsForTheNextOne) {
  tick();
  tick();
  sendAndReceive();
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  tick();
  EXPECT_EQ(eventsAtServer(), std::vector{1});
}

TEST_F(ReliableDashboardTest, ATimerThatCannotStartAgainIsAskedForAgainByTheNextPacket) {
  tick();
  platform_.timers.isRefusing = true;
  sendAndReceive();
  platform_.timers.isRefusing = false;
  sendAndReceive();
  tick();
  tick();
  EXPECT_EQ(eventsAtServer(), (std::vector{1, 2}));
}

// Nothing would ever look after them.
TEST_F(ReliableDashboardTest, CleanupWithoutATimerAbandonsWhatStillWaits) {
  tick();
  platform_.timers.isRefusing = true;
  acknowledge(sendAndReceive());
  sendAndReceive();
  backend_->cleanup();
  executor_.runAll();
  EXPECT_TRUE(sendEvent(*backend_));
  EXPECT_EQ(eventsAtServer(), std::vector<int>{}) << "it has ended";
}

// The end

TEST_F(ReliableDashboardTest, CleanupWithNothingWaitingEndsAtOnce) {
  acknowledge(sendAndReceive());
  backend_->cleanup();
  executor_.runAll();
  EXPECT_EQ(platform_.timers.running(), 0U);
}

TEST_F(ReliableDashboardTest, AfterCleanupPacketsStillGetTheirChance) {
  const std::string original = sendAndReceive();
  backend_->cleanup();
  backend_.reset();
  executor_.runAll();
  tick();
  tick();
  expectDebugLine("DashboardBackend(myPeriodicTask): scheduled last resort clean-up in 9500 ms.");
  EXPECT_EQ(eventsAtServer(), std::vector{1}) << "the backend has gone, its packet has not";
  acknowledge(original);
  EXPECT_GT(platform_.timers.running(), 0U);
  tick();
  expectDebugLine("DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.");
  EXPECT_EQ(platform_.timers.running(), 0U);
}

TEST_F(ReliableDashboardTest, TheLastResortAbandonsWhatStillWaits) {
  backend_ = make(reliableProfile(5000));
  sendEvent(*backend_);
  server_.receiveAllThere();
  backend_->cleanup();
  executor_.runAll();
  tick(5000ms);
  EXPECT_EQ(platform_.timers.started().back().firstFiring, 9500ms);
  EXPECT_EQ(platform_.timers.started().back().interval, std::nullopt);
  tick(5000ms);
  EXPECT_EQ(eventsAtServer(), std::vector{1});
  EXPECT_EQ(
      platform_.log.count(LogLevel::kDebug,
                          "DashboardBackend(myPeriodicTask): scheduled last resort clean-up in 9500 ms."),
      1);
  platform_.clock.advance(4500ms);
  platform_.timers.fireDue();
  executor_.runAll();
  for (int i = 0; i < 20; ++i) tick(5000ms);
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug,
                                      "DashboardBackend(myPeriodicTask): clean up at myPeriodicTask."));
}

}  // namespace
}  // namespace zun
