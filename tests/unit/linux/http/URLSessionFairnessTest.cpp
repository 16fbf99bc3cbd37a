// Who waits for whom: a slow server for itself, a client for its own.

#include <algorithm>

#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

constexpr const char* kServerIsBusy = "too many transfers to this server are under way";
constexpr const char* kClientIsBusy = "too many transfers of this client are under way";

/// One plain server under many names, each a host of its own. What is asked for below "/held"
/// is answered when the gate opens.
class URLSessionFairnessTest : public URLSessionTest {
 protected:
  static constexpr int kHosts = 16;

  void SetUp() override {
    plain_.handleOthers([](const TestRequest& request) { return TestAnswer{.body = request.body}; });
    plain_.answer("/held", {.gate = gate_});
    startWith({});
  }
  void TearDown() override {
    gate_->open();
    EXPECT_TRUE(delegate_->waitForCompletions(begun_));
    URLSessionTest::TearDown();
  }
  void startWith(CurlOptions options) {
    for (int host = 0; host < kHosts; ++host)
      options.hostAddresses.push_back(name(host) + ":" + std::to_string(plain_.port()) + ":127.0.0.1");
    start(std::move(options));
  }
  static std::string name(int host) { return "h" + std::to_string(host) + ".test"; }

  URLRequest to(int host, const std::string& path, std::string body = "body") const {
    URLRequest request = post(plain_.url(path, name(host)), std::move(body));
    request.holder = {1000, 1};
    return request;
  }
  static URLRequest upload(URLRequest request) {
    request.transferClass = TransferClass::kUpload;
    return request;
  }
  static URLRequest by(BudgetHolder holder, URLRequest request) {
    request.holder = holder;
    return request;
  }
  URLRequest daemonsOwnGet(int host) const { return {.url = plain_.url("/", name(host))}; }

  void hold(const URLRequest& request, int times = 1) {
    for (int i = 0; i < times; ++i) begin(request, "held " + std::to_string(begun_++));
  }
  HeardTask loadNow(URLRequest request) {
    ++begun_;
    const std::string name = "now " + std::to_string(begun_);
    begin(std::move(request), name);
    EXPECT_TRUE(delegate_->waitForEnd(name));
    return delegate_->heard(name);
  }
  void expectRefused(URLRequest request, const std::string& why) {
    const HeardTask heard = loadNow(std::move(request));
    EXPECT_TRUE(heard.failedWith(URLSessionError::kTooManyTransfers));
    ASSERT_TRUE(heard.error);
    EXPECT_EQ(heard.error->description, why);
  }

  HTTPSTestServer plain_{HTTPSTestServer::Transport::kPlain};
  const std::shared_ptr<TestGate> gate_ = std::make_shared<TestGate>();
  size_t begun_ = 0;
};

TEST_F(URLSessionFairnessTest, UploadsTakeNoConnectionOfPostsToTheirServer) {
  hold(upload(to(0, "/held")), 10);
  ASSERT_TRUE(plain_.waitForRequests(6));
  EXPECT_FALSE(loadNow(to(0, "/")).error);
  EXPECT_EQ(plain_.requestsFor("/held").size(), 6U);
}

TEST_F(URLSessionFairnessTest, UploadsTakeHalfOfAllConnectionsAtMost) {
  startWith({.maxConnections = 8});
  for (int host = 0; host < 8; ++host) hold(upload(to(host, "/held")));
  ASSERT_TRUE(plain_.waitForRequests(4));
  EXPECT_FALSE(loadNow(to(9, "/")).error);
  EXPECT_EQ(plain_.requestsFor("/held").size(), 4U);
}

TEST_F(URLSessionFairnessTest, StorebagRequestsPassPostsToTheirServer) {
  hold(to(0, "/held"), 20);
  ASSERT_TRUE(plain_.waitForRequests(6));
  EXPECT_FALSE(loadNow(daemonsOwnGet(0)).error);
}

TEST_F(URLSessionFairnessTest, PlacesAreKeptForStorebagRequests) {
  startWith({.maxConnections = 16});
  for (int host = 0; host < kHosts; ++host) hold(to(host, "/held"));
  ASSERT_TRUE(plain_.waitForRequests(15));
  EXPECT_FALSE(loadNow(daemonsOwnGet(0)).error);
  EXPECT_EQ(plain_.requestsFor("/held").size(), 15U);
}

TEST_F(URLSessionFairnessTest, StorebagRequestsStandInNobodysShare) {
  startWith({.maxTasks = 24});
  hold(to(0, "/held"), 3);
  expectRefused(to(0, "/"), kServerIsBusy);
  EXPECT_FALSE(loadNow(daemonsOwnGet(0)).error);
}

TEST_F(URLSessionFairnessTest, ClientsGetIsNoneOfTheDaemonsOwn) {
  startWith({.maxTasks = 24});
  hold(to(0, "/held"), 3);
  expectRefused(by({1000, 1}, daemonsOwnGet(0)), kServerIsBusy);
}

TEST_F(URLSessionFairnessTest, UploadsTakeNothingOfTheSharesOfPosts) {
  startWith({.maxTasks = 24});
  hold(upload(to(0, "/held")), 3);
  expectRefused(upload(to(0, "/")), kServerIsBusy);
  EXPECT_FALSE(loadNow(to(0, "/")).error);
}

// Of the half of all that a server may have, a client has what it would have of all.
TEST_F(URLSessionFairnessTest, OneClientsRequestsToAServerLeaveRoomForItsOthers) {
  startWith({.maxTasks = 64});
  hold(to(0, "/held"), 8);
  expectRefused(to(0, "/"), kServerIsBusy);
  EXPECT_FALSE(loadNow(to(1, "/")).error);
}

TEST_F(URLSessionFairnessTest, OneClientsRequestsToAServerLeaveRoomForOtherClients) {
  startWith({.maxTasks = 64});
  hold(to(0, "/held"), 8);
  expectRefused(to(0, "/"), kServerIsBusy);
  const size_t next = begun_;
  for (uint64_t client = 2; client < 20; ++client) hold(by({1000, client}, to(0, "/held")));
  const size_t another = begun_;
  hold(by({1001, 1}, to(0, "/held")), 4);
  gate_->open();
  ASSERT_TRUE(delegate_->waitForCompletions(begun_));
  EXPECT_FALSE(delegate_->heard("held " + std::to_string(next)).error);  // of the same user
  for (size_t i = another; i < begun_; ++i)
    EXPECT_FALSE(delegate_->heard("held " + std::to_string(i)).error) << i;
}

TEST_F(URLSessionFairnessTest, ClientsTakeTurnsAtAServer) {
  hold(to(0, "/held"), 60);
  ASSERT_TRUE(plain_.waitForRequests(6));
  for (int i = 0; i < 3; ++i) hold(by({1000, 2}, to(0, "/second")));
  hold(by({999, 1}, to(0, "/third")));
  gate_->open();
  ASSERT_TRUE(delegate_->waitForCompletions(begun_));
  std::vector<TestRequest> first = plain_.requests();
  // Those that had connections, two rounds that took theirs, and what a connection of a busy
  // machine may lag behind the others.
  first.resize(40);
  const auto came = [&first](const char* path) {
    return std::count_if(first.begin(), first.end(), [path](auto& request) { return request.path == path; });
  };
  EXPECT_EQ(came("/second"), 3);
  EXPECT_EQ(came("/third"), 1);
}

TEST_F(URLSessionFairnessTest, OneServersRequestsLeaveRoomForAnothers) {
  startWith({.maxTasks = 8});
  hold(by({1, 1}, to(0, "/held")));
  expectRefused(by({1, 1}, to(0, "/")), kServerIsBusy);
  expectRefused(by({2, 1}, to(0, "/")), kServerIsBusy);
  EXPECT_FALSE(loadNow(by({2, 1}, to(1, "/"))).error);
}

TEST_F(URLSessionFairnessTest, OneClientsRequestsLeaveRoomForAnothers) {
  startWith({.maxTasks = 32});
  for (int host = 0; host < 8; ++host) hold(to(host, "/held"));
  for (int i = 0; i < 10; ++i) expectRefused(to(9, "/"), kClientIsBusy);  // takes nothing of the server's
  EXPECT_FALSE(loadNow(by({1000, 2}, to(9, "/"))).error);                 // of the same user
  EXPECT_FALSE(loadNow(by({1001, 1}, to(9, "/"))).error);
}

TEST_F(URLSessionFairnessTest, OneClientsBytesLeaveRoomForAnothers) {
  startWith({.maxBodyBytes = 4000});
  hold(to(0, "/held", std::string(500, 'x')));
  hold(to(1, "/held", std::string(500, 'x')));
  expectRefused(to(2, "/", "x"), kClientIsBusy);
  EXPECT_FALSE(loadNow(by({1000, 2}, to(2, "/", "x"))).error);
}

TEST_F(URLSessionFairnessTest, WhatHasEndedGivesItsShareBack) {
  startWith({.maxTasks = 16, .maxBodyBytes = 400});
  for (int i = 0; i < 30; ++i) {
    EXPECT_FALSE(loadNow(to(0, "/", std::string(100, 'x'))).error) << i;
    ASSERT_TRUE(service_->waitUntilIdle(HTTPSTestServer::kDeadline));
  }
  for (int i = 0; i < 30; ++i) {
    expectRefused(to(0, "/", std::string(101, 'x')), kClientIsBusy);  // leaves nothing behind
  }
  EXPECT_FALSE(loadNow(to(0, "/", std::string(100, 'x'))).error);
}

}  // namespace
}  // namespace zun
