#include "daemon/IdleExitPolicy.h"

#include <gtest/gtest.h>

#include "support/Fakes.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class IdleExitPolicyTest : public ::testing::Test {
 protected:
  void transaction(bool isOpen) { policy_.transactionChanged(isOpen, clock_.monotonic()); }
  void connections(size_t open) { policy_.connectionsChanged(open, clock_.monotonic()); }
  bool shouldExit() const { return policy_.shouldExit(clock_.monotonic()); }

  FakeClock clock_;
  IdleExitPolicy policy_{30s};
};

TEST_F(IdleExitPolicyTest, ExitsTheIdleTimeAfterTheTransactionEnded) {
  transaction(true);
  clock_.advance(1h);
  EXPECT_FALSE(shouldExit());
  transaction(false);
  EXPECT_EQ(policy_.exitTime(), clock_.monotonic() + 30s);
  clock_.advance(30s - 1ns);
  EXPECT_FALSE(shouldExit());
  clock_.advance(1ns);
  EXPECT_TRUE(shouldExit());
}

TEST_F(IdleExitPolicyTest, AnOpenConnectionKeepsTheProcess) {
  connections(1);
  transaction(true);
  transaction(false);
  clock_.advance(1h);
  EXPECT_FALSE(shouldExit());
  EXPECT_EQ(policy_.exitTime(), std::nullopt);
  connections(0);
  clock_.advance(29s);
  EXPECT_FALSE(shouldExit());
  clock_.advance(1s);
  EXPECT_TRUE(shouldExit());
}

TEST_F(IdleExitPolicyTest, ANewTransactionStartsTheWaitAnew) {
  transaction(true);
  transaction(false);
  clock_.advance(29s);
  transaction(true);
  clock_.advance(10s);
  EXPECT_FALSE(shouldExit());
  transaction(false);
  clock_.advance(29s);
  EXPECT_FALSE(shouldExit());
  clock_.advance(1s);
  EXPECT_TRUE(shouldExit());
}

TEST_F(IdleExitPolicyTest, AConnectionThatComesAndGoesStartsTheWaitAnew) {
  transaction(true);
  transaction(false);
  clock_.advance(29s);
  connections(1);
  connections(0);
  clock_.advance(29s);
  EXPECT_FALSE(shouldExit());
}

TEST_F(IdleExitPolicyTest, TellingTheSameAgainDoesNotProlongTheWait) {
  transaction(true);
  transaction(false);
  clock_.advance(30s);
  connections(0);
  transaction(false);
  EXPECT_TRUE(shouldExit());
}

TEST_F(IdleExitPolicyTest, AProcessWithoutWorkYetStays) {
  connections(0);
  transaction(false);
  clock_.advance(1h);
  EXPECT_FALSE(shouldExit());
}

TEST_F(IdleExitPolicyTest, WithoutAnIdleTimeTheProcessStaysForEver) {
  IdleExitPolicy policy(std::nullopt);
  policy.transactionChanged(true, 0ns);
  policy.transactionChanged(false, 1ns);
  EXPECT_FALSE(policy.shouldExit(std::chrono::hours(100'000)));
}

TEST_F(IdleExitPolicyTest, AnIdleTimeBeyondAllBoundsIsAsGoodAsNever) {
  IdleExitPolicy policy(std::chrono::seconds::max());
  policy.transactionChanged(true, 0ns);
  policy.transactionChanged(false, 1ns);
  EXPECT_FALSE(policy.shouldExit(std::chrono::hours(100'000)));
}

TEST_F(IdleExitPolicyTest, AnIdleTimeOfZeroExitsAtOnce) {
  IdleExitPolicy policy(0s);
  policy.transactionChanged(true, 5ns);
  EXPECT_FALSE(policy.shouldExit(5ns));
  policy.transactionChanged(false, 6ns);
  EXPECT_TRUE(policy.shouldExit(6ns));
}

}  // namespace
}  // namespace zun
