#include "support/HTTPSTestServer.h"

#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

using HTTPSTestServerTest = URLSessionTest;

TEST_F(HTTPSTestServerTest, KeepsRequestsAsTheyCame) {
  URLRequest request = post(server_.url("/path?a=1&b=%32"), std::string("\x1f\x8b\0raw", 6));
  request.headers = {{"X-B", "1"}, {"x-a", "2"}};
  load(request);
  ASSERT_TRUE(server_.waitForRequests(1));
  const TestRequest received = server_.requests().at(0);
  EXPECT_EQ(received.target, "/path?a=1&b=%32");
  EXPECT_EQ(received.path, "/path");
  EXPECT_EQ(received.query, "a=1&b=%32");
  EXPECT_EQ(received.body, std::string("\x1f\x8b\0raw", 6));
  EXPECT_EQ(received.header("X-A"), "2");
  EXPECT_EQ(received.connection, 1);
  server_.clearRequests();
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(HTTPSTestServerTest, AnswersInOrderAndTheLastForEver) {
  server_.answerInOrder("/", {{.body = "1"}, {.status = 500, .body = "2"}, {.body = "3"}});
  std::string bodies;
  for (int i = 0; i < 5; ++i) bodies += get(server_.url("/")).data;
  EXPECT_EQ(bodies, "12333");
}

TEST_F(HTTPSTestServerTest, UnknownPathIsNotFoundUnlessOthersAreHandled) {
  EXPECT_EQ(get(server_.url("/x")).response->statusCode, 404);
  server_.handleOthers(
      [](const TestRequest& request) { return TestAnswer{.status = 201, .body = request.path}; });
  EXPECT_EQ(get(server_.url("/x")).data, "/x");
}

TEST_F(HTTPSTestServerTest, WaitingForRequestsEndsWithTheDeadline) {
  EXPECT_FALSE(server_.waitForRequests(1, std::chrono::milliseconds(1)));
}

TEST_F(HTTPSTestServerTest, StopsWithConnectionsOpenAndAnswersHeldBack) {
  server_.answer("/never", TestAnswer::ended(TestAnswer::Ending::kNever));
  server_.answer("/held", {.gate = std::make_shared<TestGate>()});
  begin({.url = server_.url("/never")}, "never");
  begin({.url = server_.url("/held")}, "held");
  ASSERT_TRUE(server_.waitForRequests(2));
  server_.stop();
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_TRUE(delegate_->heard("never").failedWith(URLSessionError::kConnectionLost));
}

TEST_F(HTTPSTestServerTest, CountsHandshakesThatFail) {
  HTTPSTestServer expired(HTTPSTestServer::Transport::kExpired);
  get(expired.url("/"));
  EXPECT_TRUE(expired.waitForFailedHandshakes(1));
  EXPECT_EQ(expired.connectionsEstablished(), 0);
}

}  // namespace
}  // namespace zun
