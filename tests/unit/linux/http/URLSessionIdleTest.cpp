// When connections end that are kept and not used.

#include <sys/resource.h>

#include <chrono>
#include <thread>

#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class URLSessionIdleTest : public URLSessionTest {
 protected:
  bool waitUntilConnectionsAreGone() const {
    const auto deadline = std::chrono::steady_clock::now() + HTTPSTestServer::kDeadline;
    while (trafficClassTowards(server_.port()) >= 0) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }
  std::string remote(const std::string& path) const { return server_.url(path, "server.test"); }
};

// A daemon that rests holds nobody's descriptors and memory, nor its servers'.
TEST_F(URLSessionIdleTest, IdleConnectionsEndWhenNothingHasBeenUnderWayForAWhile) {
  start({.idleConnectionsEnd = 50ms});
  server_.answer("/", {.body = "ok"});
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(get(server_.url("/")).data, "ok");
    EXPECT_TRUE(waitUntilConnectionsAreGone());
  }
  EXPECT_EQ(server_.connectionsAccepted(), 2);
}

// The limit is low, not none: no more descriptors than it may be waited for at once.
TEST_F(URLSessionIdleTest, IdleConnectionsEndOnceThereAreDescriptorsForIt) {
  start({.idleConnectionsEnd = 0ms});
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/held", {.gate = gate});
  server_.answer("/", {.body = "ok"});
  begin({.url = server_.url("/held")}, "held");
  ASSERT_TRUE(server_.waitForRequests(1));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit usedUp{8, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usedUp), 0);
  gate->open();
  EXPECT_TRUE(delegate_->waitForEnd("held"));
  routes_->become(kNetworkDown);
  begin({.url = remote("/")}, "waits");
  EXPECT_TRUE(routes_->waitUntilAsked(1));  // a look at idle connections lies between
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(waitUntilConnectionsAreGone());
  EXPECT_EQ(get(server_.url("/")).data, "ok");
}

TEST_F(URLSessionIdleTest, IdleConnectionsStayWhileAnythingIsUnderWay) {
  start({.idleConnectionsEnd = 50ms});
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/held", {.body = "held", .gate = gate});
  server_.answer("/", {.body = "ok"});
  EXPECT_EQ(get(server_.url("/")).data, "ok");
  begin({.url = server_.url("/held")}, "held");
  ASSERT_TRUE(server_.waitForRequests(2));
  HTTPSTestServer other;  // passes the time
  other.answer("/drip", {.ending = TestAnswer::Ending::kDrip, .fillerBytes = 1 << 20});
  begin({.url = other.url("/drip"), .timeout = 1h, .wholeTimeout = 200ms}, "drip");
  ASSERT_TRUE(delegate_->waitForResponse("drip"));
  EXPECT_EQ(get(server_.url("/")).data, "ok");
  const int connections = server_.connectionsAccepted();
  ASSERT_TRUE(delegate_->waitForEnd("drip"));
  EXPECT_EQ(get(server_.url("/")).data, "ok");
  EXPECT_EQ(server_.connectionsAccepted(), connections);
  gate->open();
  ASSERT_TRUE(delegate_->waitForEnd("held"));
  EXPECT_EQ(delegate_->heard("held").data, "held");
}

}  // namespace
}  // namespace zun
