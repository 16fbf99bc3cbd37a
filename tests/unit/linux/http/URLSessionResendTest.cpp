// What becomes of a request whose kept connection turns out to be dead.

#include "unit/linux/http/ClockSkew.h"
#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;
using Ending = TestAnswer::Ending;

constexpr const char* kSentAgain =
    "URLSession: requests whose kept connection closed unanswered are sent once more, 1 so far";

class URLSessionResendTest : public URLSessionTest {
 protected:
  /// Leaves `count` idle connections to the server.
  void keepConnections(int count) {
    const auto gate = std::make_shared<TestGate>();
    server_.answer("/warm", {.gate = gate});
    for (int i = 0; i < count; ++i) begin({.url = server_.url("/warm")}, "warm " + std::to_string(i));
    ASSERT_TRUE(server_.waitForRequests(static_cast<size_t>(count)));
    gate->open();
    ASSERT_TRUE(delegate_->waitForCompletions(static_cast<size_t>(count)));
    ASSERT_TRUE(service_->waitUntilIdle(HTTPSTestServer::kDeadline));
  }
};

// The other kept connection is likely to be as dead as the first.
TEST_F(URLSessionResendTest, PostThatAKeptConnectionSwallowsIsSentOnceMoreOnAFreshOne) {
  keepConnections(2);
  server_.answerInOrder("/p", {TestAnswer::ended(Ending::kNoAnswer), {.body = "ok"}});
  const HeardTask heard = load(post(server_.url("/p"), "body"));
  EXPECT_EQ(heard.data, "ok");
  const auto requests = server_.requestsFor("/p");
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_LE(requests[0].connection, 2);  // a kept one
  EXPECT_EQ(requests[1].connection, 3);
  EXPECT_EQ(requests[1].body, "body");
  EXPECT_TRUE(log_.contains(LogLevel::kDefault, kSentAgain));
}

TEST_F(URLSessionResendTest, RequestsSentAgainAreCountedInOneLineAMinute) {
  server_.answer("/warm", {});
  ClockSkew clock;
  const auto resend = [this] {
    server_.answerInOrder("/p", {TestAnswer::ended(Ending::kNoAnswer), {.body = "ok"}});
    EXPECT_FALSE(get(server_.url("/warm")).error);
    EXPECT_EQ(load(post(server_.url("/p"), "body")).data, "ok");
  };
  for (int i = 0; i < 3; ++i) resend();
  clock.advance(std::chrono::seconds(61));
  resend();
  EXPECT_EQ(
      log_.linesOf(LogLevel::kDefault),
      (std::vector<std::string>{
          kSentAgain,
          "URLSession: requests whose kept connection closed unanswered are sent once more, 4 so far"}));
}

TEST_F(URLSessionResendTest, PostIsSentTwiceAtMost) {
  keepConnections(3);
  server_.answer("/p", TestAnswer::ended(Ending::kNoAnswer));
  const HeardTask heard = load(post(server_.url("/p"), "body"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost));
  EXPECT_FALSE(heard.response);
  EXPECT_EQ(server_.requestsFor("/p").size(), 2U);
}

TEST_F(URLSessionResendTest, PostOnAFreshConnectionIsNotSentAgain) {
  server_.answer("/p", TestAnswer::ended(Ending::kNoAnswer));
  EXPECT_TRUE(load(post(server_.url("/p"), "body")).failedWith(URLSessionError::kConnectionLost));
  EXPECT_EQ(server_.requests().size(), 1U);
  EXPECT_FALSE(log_.contains(LogLevel::kDefault, kSentAgain));
}

TEST_F(URLSessionResendTest, PostWhoseAnswerHasBegunIsNotSentAgain) {
  for (const char* raw :
       {"HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n", "HTTP/1.1 100 Continue\r\n\r\n"}) {
    start({});
    server_.clearRequests();
    keepConnections(1);
    server_.answer("/p", {.ending = Ending::kClose, .raw = raw});
    const HeardTask heard = load(post(server_.url("/p"), "body"));
    EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost)) << raw;
    EXPECT_FALSE(heard.response) << raw;
    EXPECT_EQ(server_.requestsFor("/p").size(), 1U) << raw;
  }
}

// A redirect's second request is another one, and may have its own misfortune.
TEST_F(URLSessionResendTest, RequestAfterARedirectIsSentAgainToo) {
  keepConnections(1);
  server_.answerInOrder("/from", {TestAnswer::ended(Ending::kNoAnswer), TestAnswer::redirect("/to", 307)});
  server_.answerInOrder("/to", {TestAnswer::ended(Ending::kNoAnswer), {.body = "ok"}});
  EXPECT_EQ(load(post(server_.url("/from"), "body")).data, "ok");
  EXPECT_EQ(server_.requestsFor("/from").size(), 2U);
  EXPECT_EQ(server_.requestsFor("/to").size(), 2U);
}

TEST_F(URLSessionResendTest, RedirectStaysOnItsConnection) {
  server_.answer("/from", TestAnswer::redirect("/to", 307));
  server_.answer("/to", {.body = "ok"});
  EXPECT_EQ(load(post(server_.url("/from"), "body")).data, "ok");
  EXPECT_EQ(server_.connectionsAccepted(), 1);
}

// Usual servers close what has idled for longer, and would meet the next post half-way.
TEST_F(URLSessionResendTest, ConnectionThatHasIdledForTwentySecondsIsNotUsedAgain) {
  server_.answer("/p", {.body = "ok"});
  ClockSkew clock;
  EXPECT_FALSE(load(post(server_.url("/p"), "1")).error);
  clock.advance(19s);
  EXPECT_FALSE(load(post(server_.url("/p"), "2")).error);
  EXPECT_EQ(server_.connectionsAccepted(), 1);
  clock.advance(22s);
  EXPECT_FALSE(load(post(server_.url("/p"), "3")).error);
  EXPECT_EQ(server_.connectionsAccepted(), 2);
}

}  // namespace
}  // namespace zun
