// Servers that keep to no agreement. Each costs its own request alone.

#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

using Ending = TestAnswer::Ending;

class URLSessionBadServerTest : public URLSessionTest {
 protected:
  void TearDown() override {
    server_.answer("/next", {.body = "served"});
    EXPECT_EQ(load(post(server_.url("/next"), "body")).data, "served");
    URLSessionTest::TearDown();
  }
  void expectTooLarge(TestAnswer answer) {
    const HeardTask heard = postTo(std::move(answer));
    EXPECT_TRUE(heard.failedWith(URLSessionError::kResponseTooLarge));
    ASSERT_TRUE(heard.error);
    EXPECT_EQ(heard.error->description, "the answer is too large");
  }
  static std::string times(size_t count, const std::string& text) {
    std::string all;
    for (size_t i = 0; i < count; ++i) all += text;
    return all;
  }
  HeardTask postTo(TestAnswer answer, size_t bytes = 4) {
    server_.answer("/p", std::move(answer));
    return load(post(server_.url("/p"), std::string(bytes, 'b')));
  }
};

TEST_F(URLSessionBadServerTest, AnswerOfHTTP10EndsWithItsConnection) {
  const HeardTask heard = postTo({.ending = Ending::kClose, .raw = "HTTP/1.0 200 OK\r\n\r\nall of it"});
  EXPECT_FALSE(heard.error);
  EXPECT_EQ(heard.data, "all of it");
  EXPECT_EQ(heard.response->statusCode, 200);
}

TEST_F(URLSessionBadServerTest, ConnectionOfHTTP10IsNotKept) {
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(
        postTo({.ending = Ending::kClose, .raw = "HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok"}).data,
        "ok");
  const auto requests = server_.requestsFor("/p");
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_NE(requests[0].connection, requests[1].connection);
}

TEST_F(URLSessionBadServerTest, ServerThatClosesAfterTheHeadersLosesTheConnection) {
  const HeardTask heard =
      postTo({.ending = Ending::kClose, .raw = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n"});
  EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost));
  EXPECT_EQ(heard.response->statusCode, 200);
  EXPECT_EQ(server_.requestsFor("/p").size(), 1U);
}

TEST_F(URLSessionBadServerTest, ServerThatClosesWithinTheHeadersLosesTheConnection) {
  for (const char* raw : {"HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n"}) {
    const HeardTask heard = postTo({.ending = Ending::kClose, .raw = raw});
    EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost)) << raw;
    ASSERT_TRUE(heard.error);
    EXPECT_EQ(heard.error->description, "the answer breaks off within its head");
    EXPECT_FALSE(heard.response);
  }
}

TEST_F(URLSessionBadServerTest, ChunksThatBreakOffLoseTheConnection) {
  for (const char* body : {"5\r\nhalf", "5\r\nwhole\r\n"}) {
    const HeardTask heard =
        postTo({.body = body, .headers = {{"Transfer-Encoding", "chunked"}}, .ending = Ending::kClose});
    EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost)) << body;
  }
}

// Large enough that it is under way when the answer is there.
TEST_F(URLSessionBadServerTest, RefusalBeforeTheBodyIsThereIsTheAnswer) {
  constexpr size_t kBytes = 32 << 20;
  server_.answerBeforeTheBody("/p", {.status = 413, .body = "no!"});
  const HeardTask heard = load(post(server_.url("/p"), std::string(kBytes, 'b')));
  EXPECT_FALSE(heard.error) << heard.error->description;
  ASSERT_TRUE(heard.response);
  EXPECT_EQ(heard.response->statusCode, 413);
  EXPECT_EQ(heard.data, "no!");
  EXPECT_LT(heard.sent, static_cast<int64_t>(kBytes));
  EXPECT_EQ(server_.requestsFor("/p").size(), 1U);
}

TEST_F(URLSessionBadServerTest, RedirectBeforeTheBodyIsThereNeedsNoBody) {
  server_.answerBeforeTheBody("/p", TestAnswer::redirect("/to"));
  server_.answer("/to", {.body = "there"});
  EXPECT_EQ(load(post(server_.url("/p"), std::string(32 << 20, 'b'))).data, "there");
}

// It says that all is well with what it has not seen.
TEST_F(URLSessionBadServerTest, SuccessBeforeTheBodyIsThereIsNone) {
  constexpr size_t kBytes = 32 << 20;
  server_.answerBeforeTheBody("/p", {.body = "ok", .ending = Ending::kClose});
  const HeardTask heard = load(post(server_.url("/p"), std::string(kBytes, 'b')));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost));
  EXPECT_LT(heard.sent, static_cast<int64_t>(kBytes));
}

// libcurl keeps every one of them.
TEST_F(URLSessionBadServerTest, TrailersCountAsHeaders) {
  const TestHeaders chunked{{"Transfer-Encoding", "chunked"}};
  const auto withTrailers = [](size_t count) {
    return "1\r\nx\r\n0\r\n" + times(count, "A: " + std::string(1019, 'b') + "\r\n") + "\r\n";
  };
  EXPECT_EQ(postTo({.body = withTrailers(250), .headers = chunked}).data, "x");
  expectTooLarge({.body = withTrailers(256), .headers = chunked});
}

// What no body function hears of is bounded as well.
TEST_F(URLSessionBadServerTest, BodyOfARedirectIsBounded) {
  start({.maxResponseBytes = 100'000});
  server_.answer("/to", {.body = "there"});
  TestAnswer redirect = TestAnswer::redirect("/to");
  redirect.fillerBytes = 190'000;
  EXPECT_EQ(postTo(redirect).data, "there");
  redirect.fillerBytes = 10'000'000;
  expectTooLarge(redirect);

  redirect = TestAnswer::redirect("/to");
  redirect.headers.emplace_back("Transfer-Encoding", "chunked");
  redirect.body = times(100, "186a0\r\n" + std::string(100'000, 'x') + "\r\n") + "0\r\n\r\n";
  expectTooLarge(redirect);
}

TEST_F(URLSessionBadServerTest, ChunkExtensionsAreBounded) {
  start({.maxResponseBytes = 100'000});
  const TestHeaders chunked{{"Transfer-Encoding", "chunked"}};
  const std::string chunk = "1;" + std::string(10'000, 'x') + "\r\nx\r\n";
  EXPECT_EQ(postTo({.body = times(10, chunk) + "0\r\n\r\n", .headers = chunked}).data, "xxxxxxxxxx");
  expectTooLarge({.body = times(1000, chunk) + "0\r\n\r\n", .headers = chunked});
}

TEST_F(URLSessionBadServerTest, AnswersOfEarlierTransfersAreNotCounted) {
  start({.maxResponseBytes = 100'000});
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(postTo({.fillerBytes = 100'000}).error) << i;
}

}  // namespace
}  // namespace zun
