#include "daemon/MemoryReturn.h"

#include <gtest/gtest.h>

#include <deque>

namespace zun {
namespace {

using std::chrono::seconds;

class MemoryReturnTest : public ::testing::Test {
 protected:
  /// The timer that began first runs out; its wait.
  seconds runFirst() {
    auto [wait, action] = std::move(timers_.front());
    timers_.pop_front();
    action();
    return std::chrono::duration_cast<seconds>(wait);
  }

  std::deque<std::pair<std::chrono::nanoseconds, std::function<void()>>> timers_;
  int returns_ = 0;
  MemoryReturn memory_{[this](auto wait, auto action) { timers_.emplace_back(wait, std::move(action)); },
                       [this] { ++returns_; }};
};

TEST_F(MemoryReturnTest, MemoryGoesBackOnceTenSecondsAfterClientsHaveComeAndGone) {
  for (const size_t count : {1, 2, 1, 0}) memory_.connectionsChanged(count);
  ASSERT_EQ(timers_.size(), 1U);
  EXPECT_EQ(returns_, 0);
  EXPECT_EQ(runFirst(), seconds(10));
  EXPECT_EQ(returns_, 1);
  EXPECT_TRUE(timers_.empty());
  memory_.connectionsChanged(1);
  EXPECT_EQ(runFirst(), seconds(10));
  EXPECT_EQ(returns_, 2);
}

TEST_F(MemoryReturnTest, MemoryGoesBackEachMinuteWhileThereAreClients) {
  memory_.connectionsChanged(1);
  EXPECT_EQ(runFirst(), seconds(10));
  EXPECT_EQ(runFirst(), seconds(60));
  EXPECT_EQ(runFirst(), seconds(60));
  EXPECT_EQ(returns_, 3);
  memory_.connectionsChanged(0);
  EXPECT_EQ(timers_.size(), 2U);
  runFirst();
  runFirst();
  EXPECT_TRUE(timers_.empty());
}

// However often clients come and go.
TEST_F(MemoryReturnTest, TwoTimersAreEnough) {
  for (int round = 0; round < 100; ++round) {
    memory_.connectionsChanged(1);
    memory_.connectionsChanged(2);
    EXPECT_LE(timers_.size(), 2U);
    if (round % 3 == 0) runFirst();
  }
}

}  // namespace
}  // namespace zun
