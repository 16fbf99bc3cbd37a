#pragma once

#include <memory>
#include <thread>

#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "support/HTTPSTestServer.h"
#include "support/TestPlatform.h"

namespace zun {

/// A real connectivity helper and a real server for what goes through it.
class HelperTest : public PlatformTest {
 protected:
  using Helper = ReportingSessionConnectivityHelper;

  HelperTest() : PlatformTest(nullptr, HTTPSTestServer::caFile()) {
    helper_ = Helper::create(platform_.services, {}, kPOSTMode);
    helper_->activate(Helper::kDefaultReleaseTimeout);
  }
  void TearDown() override {
    const std::weak_ptr<Helper> weak = helper_;
    if (helper_) helper_->invalidate();
    helper_.reset();
    while (!weak.expired() || !platform_.workers.activity().isIdle) std::this_thread::yield();
    PlatformTest::TearDown();
  }

  HTTPSTestServer server_;
  std::shared_ptr<Helper> helper_;
};

}  // namespace zun
