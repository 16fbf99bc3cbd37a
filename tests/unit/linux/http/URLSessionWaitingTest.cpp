// What tasks wait for, what ends their waiting, and who goes first.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

// Too long a label for a name server to be asked: fails without a network.
const std::string kUnknownHost = std::string(64, 'a') + ".example";

/// A port of 127.0.0.1 at which nobody listens.
uint16_t refusedPort() {
  HTTPSTestServer server;
  return server.port();
}

/// Takes connections into its backlog and never says a word.
class SilentListener final {
 public:
  SilentListener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(socket_, 8), 0);
    EXPECT_EQ(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
  }
  ~SilentListener() { ::close(socket_); }
  uint16_t port() const { return port_; }

 private:
  const int socket_;
  uint16_t port_ = 0;
};

class URLSessionWaitingTest : public URLSessionTest {
 protected:
  /// The server under a name that is not loopback's, as far as the service knows.
  std::string remote(const std::string& path) const { return server_.url(path, "server.test"); }

  /// The task has come to wait: nothing is in flight and nobody heard of an end.
  void expectWaiting() {
    EXPECT_TRUE(service_->waitUntilIdle(HTTPSTestServer::kDeadline));
    queue_->sync([] {});
    EXPECT_EQ(delegate_->completions(), 0U);
    EXPECT_EQ(service_->transfersInFlight(), 0U);
  }
};

TEST_F(URLSessionWaitingTest, RefusedLoopbackPortFailsAtOnceWhateverTheRoutes) {
  const std::string port = std::to_string(refusedPort());
  for (const RouteMonitor::Status status : {kNetworkUp, kNetworkDown, kNetworkCellular}) {
    routes_->become(status);
    for (const char* host : {"127.0.0.1", "localhost", "127.0.0.2", "127.1", "LocalHost"}) {
      EXPECT_TRUE(
          get("https://" + std::string(host) + ":" + port + "/").failedWith(URLSessionError::kCannotConnect))
          << host;
    }
  }
  EXPECT_EQ(routes_->asked(), 0);
}

TEST_F(URLSessionWaitingTest, LoopbackTargetsNeedNoRoute) {
  routes_->become(kNetworkDown);
  server_.answer("/", {.body = "here"});
  EXPECT_EQ(get(server_.url("/")).data, "here");
  EXPECT_EQ(get(server_.url("/", "localhost")).data, "here");
}

TEST_F(URLSessionWaitingTest, UnresolvedNameFailsWhileARouteIsUp) {
  EXPECT_TRUE(get("https://" + kUnknownHost + "/").failedWith(URLSessionError::kCannotFindHost));
}

TEST_F(URLSessionWaitingTest, RefusedRemotePortFailsWhileARouteIsUp) {
  const std::string port = std::to_string(refusedPort());
  start({.hostAddresses = {"refused.test:" + port + ":127.0.0.1"}});
  EXPECT_TRUE(get("https://refused.test:" + port + "/").failedWith(URLSessionError::kCannotConnect));
}

TEST_F(URLSessionWaitingTest, AFailureSaysWhichServerItIsAbout) {
  const std::string port = std::to_string(refusedPort());
  const auto heard = get("https://127.0.0.1:" + port + "/");
  ASSERT_TRUE(heard.error);
  EXPECT_NE(heard.error->description.find("127.0.0.1 port " + port), std::string::npos)
      << heard.error->description;
}

TEST_F(URLSessionWaitingTest, TaskWithoutRouteWaitsAndGoesOnWhenOneComes) {
  routes_->become(kNetworkDown);
  server_.answer("/", {.body = "at last"});
  begin({.url = remote("/")});
  ASSERT_TRUE(routes_->waitUntilAsked(1));
  expectWaiting();
  EXPECT_EQ(server_.connectionsAccepted(), 0);
  EXPECT_TRUE(log_.contains(LogLevel::kDefault, "URLSession: transfers wait for a usable network route"));

  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->heard("task").data, "at last");
}

TEST_F(URLSessionWaitingTest, EveryWaitingTaskGoesOn) {
  routes_->become(kNetworkDown);
  server_.answer("/", {.body = "ok"});
  for (int i = 0; i < 20; ++i) begin({.url = remote("/")}, std::to_string(i));
  expectWaiting();
  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(20));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(delegate_->heard(std::to_string(i)).data, "ok");
}

// A new task reads the news that those who wait were waiting for.
TEST_F(URLSessionWaitingTest, NewsThatANewTaskReadsReachThoseWhoWait) {
  routes_->become(kNetworkDown);
  server_.answer("/", {.body = "ok"});
  begin({.url = remote("/")}, "first");
  expectWaiting();
  routes_->become(kNetworkUp);
  begin({.url = remote("/")}, "second");
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_EQ(delegate_->heard("first").data, "ok");
}

TEST_F(URLSessionWaitingTest, SessionThatDoesNotWaitFailsWithoutARoute) {
  routes_->become(kNetworkDown);
  startSession({});
  EXPECT_TRUE(get("https://" + kUnknownHost + "/").failedWith(URLSessionError::kCannotFindHost));
}

TEST_F(URLSessionWaitingTest, NameThatCannotBeResolvedBecauseTheNetworkJustWentWaits) {
  routes_->becomeInOrder({kNetworkUp, kNetworkUp, kNetworkDown});
  begin({.url = "https://" + kUnknownHost + "/"});
  ASSERT_TRUE(routes_->waitUntilAsked(3));
  expectWaiting();
  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_TRUE(delegate_->heard("task").failedWith(URLSessionError::kCannotFindHost));
}

TEST_F(URLSessionWaitingTest, AttemptThatTimesOutBecauseTheNetworkWentWaits) {
  const SilentListener silent;
  const std::string port = std::to_string(silent.port());
  start({.idleTimeout = 50ms, .hostAddresses = {"silent.test:" + port + ":127.0.0.1"}});
  routes_->becomeInOrder({kNetworkUp, kNetworkUp, kNetworkDown});
  begin({.url = "https://silent.test:" + port + "/"});
  ASSERT_TRUE(routes_->waitUntilAsked(3));
  expectWaiting();
  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_TRUE(delegate_->heard("task").failedWith(URLSessionError::kTimedOut));
}

// Its server may have taken it.
TEST_F(URLSessionWaitingTest, RequestThatWentOutFailsThoughTheNetworkWent) {
  routes_->becomeInOrder({kNetworkUp, kNetworkUp, kNetworkDown});
  server_.answer("/", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  EXPECT_TRUE(load(post(remote("/"), "body")).failedWith(URLSessionError::kConnectionLost));
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(URLSessionWaitingTest, RequestThatAKeptConnectionMayHaveDeliveredFailsThoughTheNetworkWent) {
  server_.answer("/warm", {});
  EXPECT_FALSE(get(remote("/warm")).error);
  server_.answer("/", TestAnswer::ended(TestAnswer::Ending::kNever));
  begin(post(remote("/"), "body"));
  ASSERT_TRUE(server_.waitForRequests(2));
  routes_->become(kNetworkDown);
  server_.stop();  // the connection closes, and a fresh one is refused
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  const auto task = delegate_->heard("task");
  EXPECT_TRUE(task.failedWith(URLSessionError::kCannotConnect) ||
              task.failedWith(URLSessionError::kConnectionLost));
}

TEST_F(URLSessionWaitingTest, TaskWhoseTurnComesWithoutARouteWaits) {
  start({.maxConnectionsPerHost = 1});
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/held", {.gate = gate});
  server_.answer("/", {.body = "at last"});
  begin({.url = remote("/held")}, "held");
  ASSERT_TRUE(server_.waitForRequests(1));
  routes_->becomeInOrder({kNetworkUp, kNetworkDown});
  begin({.url = remote("/")}, "next");
  ASSERT_TRUE(routes_->waitUntilAsked(3));
  gate->open();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  ASSERT_TRUE(service_->waitUntilIdle(HTTPSTestServer::kDeadline));
  EXPECT_EQ(server_.requests().size(), 1U);
  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_EQ(delegate_->heard("next").data, "at last");
}

TEST_F(URLSessionWaitingTest, WholeTimeEndsATaskThatGoesOnAndOn) {
  server_.answer("/drip", {.ending = TestAnswer::Ending::kDrip, .fillerBytes = 1 << 20});
  const HeardTask heard = load({.url = server_.url("/drip"), .timeout = 1h, .wholeTimeout = 100ms});
  EXPECT_TRUE(heard.failedWith(URLSessionError::kTimedOut));
  EXPECT_FALSE(heard.data.empty());
}

// The time of a third task, which passes, is what those that wait must not have counted.
TEST_F(URLSessionWaitingTest, WholeTimeCountsFromTheRouteOn) {
  start({.resourceTimeout = 10s});  // those who wait are looked at twice a second
  server_.answer("/", {.body = "ok"});
  server_.answer("/drip", {.ending = TestAnswer::Ending::kDrip, .fillerBytes = 1 << 20});
  routes_->becomeInOrder({kNetworkUp, kNetworkUp, kNetworkDown});
  begin({.url = "https://" + kUnknownHost + "/", .wholeTimeout = 1500ms}, "lost the route");
  ASSERT_TRUE(routes_->waitUntilAsked(3));
  expectWaiting();
  begin({.url = remote("/"), .wholeTimeout = 1500ms}, "never had one");
  begin({.url = server_.url("/drip"), .wholeTimeout = 2500ms}, "passes the time");
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_TRUE(delegate_->heard("passes the time").failedWith(URLSessionError::kTimedOut));
  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(3));
  EXPECT_EQ(delegate_->heard("never had one").data, "ok");
  EXPECT_TRUE(delegate_->heard("lost the route").failedWith(URLSessionError::kCannotFindHost));
}

TEST_F(URLSessionWaitingTest, RequestThatForbidsCellularWaitsForAnotherNetwork) {
  routes_->become(kNetworkCellular);
  server_.answer("/", {.body = "ok"});
  begin({.url = remote("/"), .cellularAccess = CellularAccess::kForbidden}, "picky");
  ASSERT_TRUE(routes_->waitUntilAsked(1));
  expectWaiting();
  EXPECT_TRUE(
      log_.contains(LogLevel::kDefault, "URLSession: transfers wait for a network that is not cellular"));

  begin({.url = remote("/")}, "easy");
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->heard("easy").data, "ok");
  EXPECT_EQ(delegate_->heard("picky").completions, 0);

  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_EQ(delegate_->heard("picky").data, "ok");
}

TEST_F(URLSessionWaitingTest, TaskThatNeedsPowerWaitsForIt) {
  URLSessionConfiguration configuration = waiting();
  configuration.requiresPowerPluggedIn = true;
  start({.powerCheckInterval = 2ms}, configuration);
  server_.answer("/", {.body = "ok"});
  begin({.url = server_.url("/")});
  ASSERT_TRUE(power_->waitUntilAsked(5));
  expectWaiting();
  EXPECT_TRUE(log_.contains(LogLevel::kDefault, "URLSession: transfers wait for external power"));
  power_->connect();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->heard("task").data, "ok");
}

// What nobody takes from the monitor wakes the transfer thread again and again.
TEST_F(URLSessionWaitingTest, AnEventOfTheRoutesIsTakenThoughAllWaitForPower) {
  URLSessionConfiguration configuration = waiting();
  configuration.requiresPowerPluggedIn = true;
  start({.powerCheckInterval = 1h}, configuration);
  begin({.url = remote("/")});
  ASSERT_TRUE(power_->waitUntilAsked(1));
  EXPECT_EQ(routes_->asked(), 0);
  routes_->become(kNetworkUp);
  ASSERT_TRUE(routes_->waitUntilAsked(1));
  expectWaiting();
  EXPECT_LE(power_->asked(), 3);
}

TEST_F(URLSessionWaitingTest, WaitingEndsWithTheTasksTime) {
  start({.resourceTimeout = 50ms});
  routes_->become(kNetworkDown);
  EXPECT_TRUE(get(remote("/")).failedWith(URLSessionError::kTimedOut));
}

TEST_F(URLSessionWaitingTest, TaskThatIsStillQueuedEndsWithItsTime) {
  start({.idleTimeout = 1h, .resourceTimeout = 100ms, .maxConnectionsPerHost = 1});
  server_.answer("/hang", TestAnswer::ended(TestAnswer::Ending::kNever));
  begin({.url = server_.url("/hang")}, "first");
  begin({.url = server_.url("/hang")}, "second");
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_TRUE(delegate_->heard("first").failedWith(URLSessionError::kTimedOut));
  EXPECT_TRUE(delegate_->heard("second").failedWith(URLSessionError::kTimedOut));
}

TEST_F(URLSessionWaitingTest, ServerThatNeverAnswersTimesOut) {
  start({.idleTimeout = 100ms});
  server_.answer("/hang", TestAnswer::ended(TestAnswer::Ending::kNever));
  const HeardTask heard = load(post(server_.url("/hang"), "body"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kTimedOut));
  EXPECT_FALSE(heard.response);
}

TEST_F(URLSessionWaitingTest, ServerThatStopsMidAnswerTimesOutWithItsResponse) {
  start({.idleTimeout = 100ms});
  server_.answer("/stall", {.body = "0123456789", .ending = TestAnswer::Ending::kStallMidAnswer});
  const HeardTask heard = get(server_.url("/stall"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kTimedOut));
  EXPECT_EQ(heard.data, "01234");
  ASSERT_TRUE(heard.response);
  EXPECT_EQ(heard.response->statusCode, 200);
}

TEST_F(URLSessionWaitingTest, ServerThatNeverFinishesTheHandshakeTimesOut) {
  start({.idleTimeout = 100ms});
  const SilentListener silent;
  EXPECT_TRUE(
      get("https://127.0.0.1:" + std::to_string(silent.port()) + "/").failedWith(URLSessionError::kTimedOut));
}

TEST_F(URLSessionWaitingTest, TimeoutOfTheRequestIsTakenWhenTheServiceHasNone) {
  const SilentListener silent;
  EXPECT_TRUE(load({.url = "https://127.0.0.1:" + std::to_string(silent.port()) + "/", .timeout = 1s})
                  .failedWith(URLSessionError::kTimedOut));
}

TEST_F(URLSessionWaitingTest, AfterATimeoutTheHostIsServedAgain) {
  start({.idleTimeout = 100ms, .maxConnectionsPerHost = 1});
  server_.answerInOrder("/", {TestAnswer::ended(TestAnswer::Ending::kNever), {.body = "ok"}});
  EXPECT_TRUE(get(server_.url("/")).failedWith(URLSessionError::kTimedOut));
  start({.maxConnectionsPerHost = 1});
  EXPECT_EQ(get(server_.url("/")).data, "ok");
}

TEST_F(URLSessionWaitingTest, TwoHundredTasksAtOnceShareAFewConnections) {
  server_.handleOthers([](const TestRequest& request) { return TestAnswer{.body = request.body}; });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this, thread] {
      for (int i = 0; i < 50; ++i) {
        const std::string name = std::to_string(thread * 50 + i);
        begin(post(server_.url("/echo"), "body " + name), name);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(delegate_->waitForCompletions(200));
  for (int i = 0; i < 200; ++i) {
    const HeardTask heard = delegate_->heard(std::to_string(i));
    EXPECT_EQ(heard.data, "body " + std::to_string(i));
    EXPECT_FALSE(heard.error);
  }
  EXPECT_EQ(server_.requests().size(), 200U);
  EXPECT_LE(server_.connectionsAccepted(), 6);
}

TEST_F(URLSessionWaitingTest, HostThatHangsDoesNotHoldUpAnother) {
  HTTPSTestServer slow;
  const auto gate = std::make_shared<TestGate>();
  slow.answer("/", {.body = "slow", .gate = gate});
  server_.answer("/", {.body = "fast"});
  for (int i = 0; i < 20; ++i) begin({.url = slow.url("/")}, "slow " + std::to_string(i));
  ASSERT_TRUE(slow.waitForRequests(6));
  begin({.url = server_.url("/")}, "fast");
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->heard("fast").data, "fast");
  // Completions are told before they are counted off.
  const auto deadline = std::chrono::steady_clock::now() + HTTPSTestServer::kDeadline;
  while (service_->transfersInFlight() > 20U && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_EQ(service_->transfersInFlight(), 20U);
  EXPECT_EQ(slow.requests().size(), 6U);
  gate->open();
  ASSERT_TRUE(delegate_->waitForCompletions(21));
}

TEST_F(URLSessionWaitingTest, DiscretionaryTasksGoOneAtATime) {
  URLSessionConfiguration configuration = waiting();
  configuration.discretionary = true;
  startSession(configuration);
  std::atomic<int> now{0};
  std::atomic<int> most{0};
  server_.handleOthers([&](const TestRequest&) {
    most = std::max(most.load(), ++now);
    std::this_thread::yield();
    --now;
    return TestAnswer{};
  });
  for (int i = 0; i < 20; ++i) begin({.url = server_.url("/")}, std::to_string(i));
  ASSERT_TRUE(delegate_->waitForCompletions(20));
  EXPECT_EQ(most, 1);
  EXPECT_EQ(server_.connectionsAccepted(), 1);
}

TEST_F(URLSessionWaitingTest, TasksBeyondTheLimitFailAtOnce) {
  start({.maxTasks = 3});
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/", {.gate = gate});
  for (int i = 0; i < 3; ++i) begin({.url = server_.url("/")}, std::to_string(i));
  EXPECT_TRUE(get(server_.url("/")).failedWith(URLSessionError::kTooManyTransfers));
  gate->open();
  ASSERT_TRUE(delegate_->waitForCompletions(4));
  ASSERT_TRUE(service_->waitUntilIdle(HTTPSTestServer::kDeadline));
  EXPECT_FALSE(get(server_.url("/")).error);
}

TEST_F(URLSessionWaitingTest, BytesToSendBeyondTheShareFailAtOnceWhileOthersWait) {
  start({.maxBodyBytes = 4000});
  routes_->become(kNetworkDown);
  server_.answer("/", {});
  const auto ofClient = [](URLRequest request) {
    request.holder = {1000, 1};
    return request;
  };
  begin(ofClient(post(remote("/"), std::string(900, 'x'))), "waits");
  EXPECT_TRUE(load(ofClient(post(remote("/"), std::string(101, 'x'))))
                  .failedWith(URLSessionError::kTooManyTransfers));
  begin(ofClient(post(remote("/"), std::string(100, 'x'))), "waits too");
  routes_->become(kNetworkUp);
  ASSERT_TRUE(delegate_->waitForCompletions(3));
  EXPECT_FALSE(delegate_->heard("waits too").error);
}

TEST_F(URLSessionWaitingTest, BackgroundTrafficIsMarkedAndSharesNoConnection) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/plain", {});
  server_.answer("/held", {.gate = gate});
  EXPECT_FALSE(get(server_.url("/plain")).error);
  EXPECT_EQ(trafficClassTowards(server_.port()), 0);

  start({}, {.kind = URLSessionConfiguration::Kind::kBackground});
  begin({.url = server_.url("/held")});
  ASSERT_TRUE(server_.waitForRequests(2));
  EXPECT_EQ(trafficClassTowards(server_.port()), IPTOS_CLASS_CS1);
  gate->open();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  ASSERT_TRUE(service_->waitUntilIdle(HTTPSTestServer::kDeadline));
  startSession(waiting());
  EXPECT_FALSE(get(server_.url("/plain")).error);
  const auto requests = server_.requests();
  EXPECT_NE(requests.at(1).connection, requests.at(2).connection);
}

}  // namespace
}  // namespace zun
