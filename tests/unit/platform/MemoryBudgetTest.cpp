#include "platform/MemoryBudget.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace zun {
namespace {

constexpr BudgetHolder kFirst{1000, 1};
constexpr BudgetHolder kSecond{1000, 2};
constexpr BudgetHolder kStranger{1001, 1};

/// As many single ones as are granted.
size_t takeAll(MemoryBudget& budget, BudgetHolder holder) {
  size_t taken = 0;
  while (budget.take(1, holder)) ++taken;
  return taken;
}

// What is left for whoever comes next: a quarter, as nobody knows whether he comes alone.
TEST(MemoryBudgetTest, LoneMemberKeepsAtMostAQuarter) {
  MemoryBudget budget(1000);
  EXPECT_EQ(takeAll(budget, kFirst), 250U);
  EXPECT_EQ(budget.left(), 750U);
  EXPECT_FALSE(MemoryBudget(1000).take(251, kFirst));
  EXPECT_TRUE(MemoryBudget(1000).take(250, kFirst));
}

TEST(MemoryBudgetTest, AllMembersOfAUserTogetherKeepAtMostHalf) {
  MemoryBudget budget(1000);
  size_t kept = 0;
  for (uint64_t member = 1; member <= 256; ++member) kept += takeAll(budget, {1000, member});
  EXPECT_LE(kept, 500U);
  EXPECT_GE(kept, 497U);
}

TEST(MemoryBudgetTest, EachUserKeepsAtMostHalfOfWhatOthersLeave) {
  MemoryBudget budget(1 << 20);
  size_t left = 1 << 20;
  for (uint32_t user = 1; user <= 8; ++user) {
    size_t kept = 0;
    for (uint64_t member = 1; member <= 64; ++member) kept += takeAll(budget, {user, member});
    EXPECT_LE(kept, left / 2);
    EXPECT_GE(kept, left / 2 - 16);
    left -= kept;
  }
}

TEST(MemoryBudgetTest, EachMemberKeepsAtMostHalfOfWhatItsUsersOtherMembersLeave) {
  MemoryBudget budget(1 << 20);
  size_t left = 1 << 19;  // the user's
  for (uint64_t member = 1; member <= 8; ++member) {
    const size_t kept = takeAll(budget, {1000, member});
    EXPECT_LE(kept, left / 2);
    EXPECT_GE(kept, left / 2 - 1);
    left -= kept;
  }
}

// The other user takes what he can between the two members, and must find the part taken.
TEST(MemoryBudgetTest, MemberThatComesLaterFindsSomethingWhateverOtherUsersTookBefore) {
  MemoryBudget budget(1 << 20);
  const size_t first = takeAll(budget, kFirst);
  for (uint32_t user = 2000; user < 2008; ++user) {
    for (uint64_t member = 1; member <= 64; ++member) takeAll(budget, {user, member});
  }
  EXPECT_EQ(takeAll(budget, kSecond), first / 2);
}

TEST(MemoryBudgetTest, RefusedTakeTakesNothing) {
  MemoryBudget budget(1000);
  EXPECT_FALSE(budget.take(251, kFirst));
  EXPECT_FALSE(budget.take(SIZE_MAX, kFirst));
  EXPECT_FALSE(budget.take(SIZE_MAX / 2 + 2, kFirst));  // twice of it is little
  EXPECT_FALSE(budget.take(1001));
  EXPECT_EQ(budget.left(), 1000U);
  EXPECT_EQ(takeAll(budget, kFirst), 250U);
}

TEST(MemoryBudgetTest, WhatIsGivenBackIsEverybodysAgain) {
  MemoryBudget budget(1000);
  EXPECT_TRUE(budget.take(250, kFirst));
  EXPECT_TRUE(budget.take(125, kStranger));
  budget.giveBack(250, kFirst);
  EXPECT_EQ(takeAll(budget, kStranger), 125U);
  budget.giveBack(250, kStranger);
  EXPECT_EQ(budget.left(), 1000U);
  EXPECT_EQ(takeAll(budget, kSecond), 250U);
}

// A user that keeps a little of what was much sets no more aside than that.
TEST(MemoryBudgetTest, PartOfAUserShrinksWithWhatItKeeps) {
  MemoryBudget budget(1000);
  EXPECT_TRUE(budget.take(250, kFirst));
  budget.giveBack(240, kFirst);
  EXPECT_EQ(takeAll(budget, kStranger), 245U);
}

TEST(MemoryBudgetTest, DaemonIsHeldToNoShareButToTheWhole) {
  MemoryBudget budget(1000);
  EXPECT_TRUE(budget.take(100, kFirst));  // its part is twice that
  EXPECT_TRUE(budget.take(800));
  EXPECT_FALSE(budget.take(1));
  EXPECT_FALSE(budget.take(1, kStranger));
  EXPECT_TRUE(budget.take(50, kSecond));
  budget.giveBack(800);
  EXPECT_TRUE(budget.take(1, kStranger));
}

TEST(MemoryBudgetTest, RootsMembersAreHeldToShares) {
  MemoryBudget budget(1000);
  EXPECT_FALSE(budget.take(251, {0, 1}));
  EXPECT_FALSE(budget.take(251, {1, 0}));
}

// Any order of takes and returns: the sum holds, no one ever finds nothing, and what one
// gives back takes nothing from another.
TEST(MemoryBudgetTest, NobodyFindsNothingInAnyOrder) {
  constexpr size_t kTotal = size_t{1} << 40;
  std::mt19937_64 random(1);
  for (int round = 0; round < 200; ++round) {
    MemoryBudget budget(kTotal);
    std::map<std::pair<uint32_t, uint64_t>, size_t> kept;
    size_t sum = 0;
    for (int step = 0; step < 200; ++step) {
      const BudgetHolder holder{static_cast<uint32_t>(1 + random() % 4), 1 + random() % 4};
      size_t& own = kept[{holder.user, holder.member}];
      if (random() % 3 == 0) {
        const size_t bytes = own == 0 ? 0 : random() % (own + 1);
        budget.giveBack(bytes, holder);
        own -= bytes;
        sum -= bytes;
      } else if (const size_t bytes = kTotal >> (random() % 40); budget.take(bytes, holder)) {
        own += bytes;
        sum += bytes;
      }
      ASSERT_LE(sum, kTotal);
      ASSERT_EQ(budget.left(), kTotal - sum);
    }
    for (uint32_t user = 1; user <= 5; ++user) {
      const BudgetHolder newcomer{user, 99};
      ASSERT_TRUE(budget.take(1, newcomer)) << "user " << user << " in round " << round;
      budget.giveBack(1, newcomer);
    }
  }
}

TEST(MemoryBudgetTest, CountsRightFromManyThreads) {
  MemoryBudget budget(1 << 20);
  std::vector<std::thread> threads;
  for (uint32_t user = 1; user <= 4; ++user) {
    threads.emplace_back([&budget, user] {
      for (int i = 0; i < 10'000; ++i) {
        const BudgetHolder holder{user % 2, user};
        if (budget.take(100, holder)) budget.giveBack(100, holder);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(budget.left(), size_t{1} << 20);
}

class MemoryShareTest : public ::testing::Test {
 protected:
  static constexpr size_t kTotal = size_t{4} << 20;
  const std::shared_ptr<MemoryBudget> budget_ = std::make_shared<MemoryBudget>(kTotal);
};

TEST_F(MemoryShareTest, TakesExactlyWithoutAStepAndGivesAllBackAtItsEnd) {
  {
    MemoryShare share(budget_, kFirst);
    EXPECT_TRUE(share.grow(1000));
    EXPECT_TRUE(share.grow(10));
    EXPECT_EQ(budget_->left(), kTotal - 1010);
    share.shrink(600);
    EXPECT_EQ(share.bytes(), 410U);
    EXPECT_EQ(budget_->left(), kTotal - 410);
    EXPECT_FALSE(share.grow(kTotal / 4));
    EXPECT_EQ(share.bytes(), 410U);
  }
  EXPECT_EQ(budget_->left(), kTotal);
}

// A small holder must not keep a whole step from others.
TEST_F(MemoryShareTest, TakesAheadWhatItKeepsUpToAStep) {
  MemoryShare share(budget_, kFirst, 4000);
  EXPECT_TRUE(share.grow(1000));
  EXPECT_EQ(budget_->left(), kTotal - 1000);
  EXPECT_TRUE(share.grow(1000));
  EXPECT_EQ(budget_->left(), kTotal - 3000);
  EXPECT_TRUE(share.grow(1000));  // was taken already
  EXPECT_EQ(budget_->left(), kTotal - 3000);
  EXPECT_TRUE(share.grow(10'000));
  EXPECT_EQ(budget_->left(), kTotal - 16'000);
  EXPECT_TRUE(share.grow(3000));
  EXPECT_TRUE(share.grow(1));
  EXPECT_EQ(budget_->left(), kTotal - 20'001);
  share.shrink(16'000);
  EXPECT_EQ(budget_->left(), kTotal - 2);
  share.shrink(1);
  EXPECT_EQ(budget_->left(), kTotal);
}

TEST_F(MemoryShareTest, WhatItTookAheadGoesBackWithIt) {
  {
    MemoryShare share(budget_, kFirst, 4000);
    EXPECT_TRUE(share.grow(1000));
    EXPECT_TRUE(share.grow(1000));
  }
  EXPECT_EQ(budget_->left(), kTotal);
}

TEST_F(MemoryShareTest, FindsTheLastOfItsShareWhereAStepIsTooMuch) {
  MemoryShare share(budget_, kFirst, MemoryShare::kUsualStep);
  ASSERT_TRUE(share.grow(kTotal / 4 - 10));
  EXPECT_TRUE(share.grow(10));
  EXPECT_FALSE(share.grow(1));
  EXPECT_EQ(share.bytes(), kTotal / 4);
}

}  // namespace
}  // namespace zun
