#pragma once

#include "unit/connectivity/ConnectivityTest.h"

namespace zun {

class LifetimeTest : public ConnectivityTest {
 protected:
  using Counts = std::vector<int32_t>;
  using References = std::vector<uint32_t>;

  LifetimeTest() : ownerQueue_(SerialQueue::create("owner", executor_)) {}

  /// What the owner heard, call by call.
  Helper::ReleaseCallback callback() {
    return [this](int32_t usageCount) { heard_.push_back(usageCount); };
  }
  void increment() {
    helper_->ownerIncrementUsageCount();
    crank();
  }
  void decrement() {
    helper_->ownerDecrementUsageCountWithBlock(
        [this](int32_t usageCount) {
          EXPECT_TRUE(ownerQueue_->isCurrent()) << "whoever calls";
          heard_.push_back(usageCount);
        },
        ownerQueue_);
    crank();
  }
  void serve(int sessions) {
    for (int i = 0; i < sessions; ++i) helper_->incrementTotalSessionsServedCount();
  }
  std::vector<uint32_t> handedBack() { return holder_->releases(); }

  HTTPSTestServer server_;
  std::shared_ptr<SerialQueue> ownerQueue_;
  std::vector<int32_t> heard_;
};

}  // namespace zun
