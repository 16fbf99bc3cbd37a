#include "linux/service/ServiceTransactions.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "linux/loop/EventLoop.h"
#include "support/NotifySocket.h"

namespace zun {
namespace {

class ServiceTransactionsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(loop_, nullptr); }

  /// Lets the loop do what has been posted so far.
  void settle() {
    loop_->quit();
    EXPECT_TRUE(loop_->run());
  }

  std::unique_ptr<EventLoop> loop_ = EventLoop::create();
  std::vector<bool> changes_;
};

TEST_F(ServiceTransactionsTest, TellsTheObserverAndTheServiceManagerOfEachChange) {
  NotifySocket manager;
  ServiceTransactions transactions(*loop_, [this](bool isOpen) { changes_.push_back(isOpen); });
  EXPECT_FALSE(transactions.isOpen());
  transactions.begin();
  EXPECT_TRUE(transactions.isOpen());
  EXPECT_TRUE(changes_.empty()) << "nothing is done on the caller's thread";
  settle();
  EXPECT_EQ(changes_, std::vector{true});
  EXPECT_EQ(manager.receive(), "STATUS=Working");
  transactions.end();
  EXPECT_FALSE(transactions.isOpen());
  settle();
  EXPECT_EQ(changes_, (std::vector{true, false}));
  EXPECT_EQ(manager.receive(), "STATUS=Idle");
}

TEST_F(ServiceTransactionsTest, OneIsOpenAtATime) {
  ServiceTransactions transactions(*loop_, [this](bool isOpen) { changes_.push_back(isOpen); });
  transactions.end();
  transactions.begin();
  transactions.begin();
  settle();
  EXPECT_EQ(changes_, std::vector{true});
  transactions.end();
  EXPECT_FALSE(transactions.isOpen());
  settle();
  EXPECT_EQ(changes_, (std::vector{true, false}));
}

TEST_F(ServiceTransactionsTest, AnEndWithANewBeginIsNoChange) {
  ServiceTransactions transactions(*loop_, [this](bool isOpen) { changes_.push_back(isOpen); });
  transactions.begin();
  settle();
  transactions.end();
  transactions.begin();
  settle();
  EXPECT_EQ(changes_, std::vector{true});
}

// Work so short still was work: a process that is to leave when it has had some would stay.
TEST_F(ServiceTransactionsTest, ABeginWithAnEndRightAfterItIsTold) {
  ServiceTransactions transactions(*loop_, [this](bool isOpen) { changes_.push_back(isOpen); });
  for (int round = 0; round < 2; ++round) {
    transactions.begin();
    transactions.end();
    settle();
    EXPECT_EQ(changes_, (std::vector{true, false}));
    changes_.clear();
  }
  settle();
  EXPECT_EQ(changes_, std::vector<bool>());
}

TEST_F(ServiceTransactionsTest, NothingIsReportedAfterTheEndOfTheObject) {
  {
    ServiceTransactions transactions(*loop_, [this](bool isOpen) { changes_.push_back(isOpen); });
    transactions.begin();
  }
  settle();
  EXPECT_TRUE(changes_.empty());
}

}  // namespace
}  // namespace zun
