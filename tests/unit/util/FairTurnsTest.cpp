#include "util/FairTurns.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace zun {
namespace {

constexpr auto kAlways = [] { return true; };

class FairTurnsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (auto& thread : threads_) thread.join();
  }

  /// One more of `holder` waits; its turn is over as soon as it is noted.
  void come(BudgetHolder holder) {
    const size_t before = turns_.waiting();
    threads_.emplace_back([this, holder] {
      const auto turn = turns_.wait(holder, kAlways);
      served_.push_back(
          holder.user * 10 +
          static_cast<uint32_t>(holder.member));  // one at a time: the next turn begins with this one's end
    });
    while (turns_.waiting() == before) std::this_thread::yield();
  }
  std::vector<uint32_t> servedInTheEnd() {
    for (auto& thread : threads_) thread.join();
    threads_.clear();
    return served_;
  }

  FairTurns turns_{1};
  std::vector<std::thread> threads_;
  std::vector<uint32_t> served_;  // the user, and as last digit the member
};

TEST_F(FairTurnsTest, SoManyAtATimeHaveATurn) {
  FairTurns turns(2);
  const auto first = turns.wait({1}, kAlways);
  auto second = std::make_unique<FairTurns::Turn>(turns.wait({1}, kAlways));
  EXPECT_TRUE(first);
  EXPECT_TRUE(*second);
  EXPECT_FALSE(turns.wait({1}, [] { return false; }));
  EXPECT_EQ(turns.waiting(), 0U);
  second.reset();
  EXPECT_TRUE(turns.wait({1}, kAlways));
}

// The one that waits may not have woken yet when the second ends.
TEST_F(FairTurnsTest, TurnsThatEndAtOnceAreBothFreeAgain) {
  FairTurns turns(2);
  const auto now = [] { return false; };
  for (int round = 0; round < 300; ++round) {
    auto first = std::make_unique<FairTurns::Turn>(turns.wait({1}, now));
    auto second = std::make_unique<FairTurns::Turn>(turns.wait({1}, now));
    ASSERT_TRUE(*first && *second) << round;
    std::thread waiter([&turns] { EXPECT_TRUE(turns.wait({2}, kAlways)); });
    while (turns.waiting() == 0) std::this_thread::yield();
    first.reset();
    second.reset();
    waiter.join();
  }
}

// Whoever is called and has not woken yet must not be taken for the next.
TEST_F(FairTurnsTest, TurnsThatEndAtOnceAreBothTaken) {
  FairTurns turns(2);
  for (int round = 0; round < 300; ++round) {
    auto first = std::make_unique<FairTurns::Turn>(turns.wait({1}, kAlways));
    auto second = std::make_unique<FairTurns::Turn>(turns.wait({1}, kAlways));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const auto isEarly = [deadline] { return std::chrono::steady_clock::now() < deadline; };
    std::atomic<int> taken{0};
    const auto takeUntilBothHave = [&] {
      const auto turn = turns.wait({1}, isEarly);
      taken += turn ? 1 : 0;
      while (taken < 2 && isEarly()) std::this_thread::yield();
    };
    std::thread one(takeUntilBothHave);
    std::thread other(takeUntilBothHave);
    while (turns.waiting() < 2) std::this_thread::yield();
    first.reset();
    second.reset();
    one.join();
    other.join();
    ASSERT_TRUE(taken == 2 && isEarly()) << round;
  }
}

// However many one user has waiting, another comes after one of them.
TEST_F(FairTurnsTest, UsersTakeTurns) {
  {
    const auto turn = turns_.wait({7}, kAlways);
    for (const uint32_t user : {1, 1, 1, 2, 2, 3}) come({user});
  }
  EXPECT_EQ(servedInTheEnd(), (std::vector<uint32_t>{10, 20, 30, 10, 20, 10}));
}

// Nor does one program of a user have another wait for all that it has waiting.
TEST_F(FairTurnsTest, MembersOfAUserTakeTurnsWithinTheUsersTurns) {
  {
    const auto turn = turns_.wait({7}, kAlways);
    for (const uint64_t member : {1, 1, 1, 2}) come({1, member});
    for (const uint64_t member : {1, 1}) come({2, member});
  }
  EXPECT_EQ(servedInTheEnd(), (std::vector<uint32_t>{11, 21, 12, 21, 11, 11}));
}

TEST_F(FairTurnsTest, WhoHasATurnAlreadyComesAfterOthers) {
  {
    const auto turn = turns_.wait({1}, kAlways);
    for (const uint32_t user : {1, 2}) come({user});
  }
  EXPECT_EQ(servedInTheEnd(), (std::vector<uint32_t>{20, 10}));
}

// Nothing is kept of who has gone, however many come and go.
TEST_F(FairTurnsTest, WhoseTurnsAreOverIsNotRemembered) {
  EXPECT_TRUE(turns_.wait({1, 1}, kAlways));
  EXPECT_TRUE(turns_.wait({3, 1}, kAlways));
  {
    const auto turn = turns_.wait({7}, kAlways);
    for (const uint32_t user : {3, 2}) come({user, 1});
    for (const uint64_t member : {1, 2}) come({1, member});
  }
  EXPECT_EQ(servedInTheEnd(), (std::vector<uint32_t>{31, 21, 11, 12}));
}

TEST_F(FairTurnsTest, WhoIsNoLongerWantedLeavesAndTakesNoTurn) {
  std::atomic<bool> isWanted{true};
  {
    const auto turn = turns_.wait({1}, kAlways);
    std::thread waiter([&] { EXPECT_FALSE(turns_.wait({2}, [&] { return isWanted.load(); })); });
    while (turns_.waiting() == 0) std::this_thread::yield();
    isWanted = false;
    waiter.join();
  }
  EXPECT_TRUE(turns_.wait({3}, kAlways));
}

}  // namespace
}  // namespace zun
