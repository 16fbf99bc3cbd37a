#include "unit/linux/http/URLSessionTest.h"

#include <algorithm>

#include "support/Gzip.h"

namespace zun {
namespace {

using Names = std::vector<std::string>;

int count(const TestRequest& request, const std::string& name) {
  return static_cast<int>(
      std::count_if(request.headers.begin(), request.headers.end(),
                    [&](const auto& header) { return URLResponse{.headers = {header}}.header(name); }));
}

TEST(URLRequestTest, SetHeaderReplacesWhateverTheLetterCaseAndKeepsThePlace) {
  URLRequest request;
  request.setHeader("Content-Type", "a");
  request.setHeader("X-Other", "b");
  request.setHeader("content-type", "c");
  const std::vector<std::pair<std::string, std::string>> expected{{"Content-Type", "c"}, {"X-Other", "b"}};
  EXPECT_EQ(request.headers, expected);
}

TEST(URLResponseTest, HeaderIgnoresLetterCaseAndTheFirstWins) {
  const URLResponse response{"https://h/", 200, {{"ETag", "1"}, {"etag", "2"}}};
  EXPECT_EQ(response.header("etag"), "1");
  EXPECT_EQ(response.header("Age"), std::nullopt);
  EXPECT_EQ(response.description(), "<URLResponse: status 200, URL https://h/, headers [ETag, etag]>");
}

TEST_F(URLSessionTest, GetDeliversResponseThenDataThenCompletion) {
  server_.answer("/a", {.body = "hello", .headers = {{"X-One", "1"}}});
  const HeardTask heard = get(server_.url("/a?q=%20x"));
  EXPECT_EQ(heard.calls, (Names{"response", "data", "complete"}));
  EXPECT_EQ(heard.data, "hello");
  ASSERT_TRUE(heard.response);
  EXPECT_EQ(heard.response->statusCode, 200);
  EXPECT_EQ(heard.response->url, server_.url("/a?q=%20x"));
  EXPECT_EQ(heard.response->header("x-one"), "1");
  EXPECT_EQ(heard.announced->headers, heard.response->headers);
  EXPECT_FALSE(heard.error);
  EXPECT_EQ(server_.requests().at(0).target, "/a?q=%20x");
  EXPECT_EQ(server_.requests().at(0).method, "GET");
}

TEST_F(URLSessionTest, PostSendsItsBodyAsItIsAndTellsHowMuchWasSent) {
  server_.answer("/p", {.body = "ok"});
  std::string body = "line\r\n";
  body += std::string(3, '\0');
  body += std::string(300'000, 'z');
  const HeardTask heard = load(post(server_.url("/p"), body));
  EXPECT_FALSE(heard.error);
  EXPECT_EQ(heard.calls, (Names{"sent", "response", "data", "complete"}));
  EXPECT_EQ(heard.sent, static_cast<int64_t>(body.size()));
  EXPECT_EQ(heard.expected, static_cast<int64_t>(body.size()));
  const TestRequest request = server_.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.body, body);
  EXPECT_EQ(request.header("Content-Length"), std::to_string(body.size()));
}

TEST_F(URLSessionTest, PostWithAnEmptyBodySaysLengthZero) {
  server_.answer("/p", {});
  EXPECT_FALSE(load(post(server_.url("/p"), "")).error);
  EXPECT_EQ(server_.requests().at(0).header("Content-Length"), "0");
}

TEST_F(URLSessionTest, HeadersGoOutInTheOrderSetAndNothingIsAddedButWhatHTTPNeeds) {
  server_.answer("/p", {});
  URLRequest request = post(server_.url("/p"), "12345");
  request.headers = {{"X-First", "1"},        {"Content-Type", "application/json"},
                     {"Content-Length", "5"}, {"X-Second", "  spaced"},
                     {"Empty", ""},           {"User-Agent", "zun/1"}};
  EXPECT_FALSE(load(request).error);
  const TestRequest received = server_.requests().at(0);
  Names names;
  for (const auto& header : received.headers) names.push_back(header.first);
  EXPECT_EQ(names, (Names{"Host", "Accept-Encoding", "X-First", "Content-Type", "Content-Length", "X-Second",
                          "Empty", "User-Agent"}));
}

TEST_F(URLSessionTest, LengthThatTheCallerGaveWrongIsPutRight) {
  server_.answer("/p", {});
  URLRequest request = post(server_.url("/p"), "12345");
  request.headers = {{"content-length", "99"}};
  EXPECT_FALSE(load(request).error);
  EXPECT_EQ(server_.requests().at(0).body, "12345");
  EXPECT_EQ(count(server_.requests().at(0), "Content-Length"), 1);
}

TEST_F(URLSessionTest, RequestsOwnAcceptEncodingIsSentAndTheBodyComesUndecoded) {
  const std::string compressed = gzipped("some text");
  server_.answer("/z", {.body = compressed, .headers = {{"Content-Encoding", "gzip"}}});
  URLRequest request{.url = server_.url("/z")};
  request.setHeader("Accept-Encoding", "gzip, br");
  EXPECT_EQ(load(request).data, compressed);
  EXPECT_EQ(server_.requests().at(0).header("Accept-Encoding"), "gzip, br");
  EXPECT_EQ(count(server_.requests().at(0), "Accept-Encoding"), 1);
}

TEST_F(URLSessionTest, GzipBodyIsDecoded) {
  const std::string text(100'000, 'g');
  server_.answer("/z", {.body = gzipped(text), .headers = {{"Content-Encoding", "gzip"}}});
  const HeardTask heard = get(server_.url("/z"));
  EXPECT_EQ(heard.data, text);
  EXPECT_FALSE(heard.error);
  EXPECT_EQ(server_.requests().at(0).header("Accept-Encoding"), "gzip");
}

// Small on the wire, endless in memory.
TEST_F(URLSessionTest, GzipBodyThatDecodesToTooMuchFails) {
  server_.answer("/z",
                 {.body = gzipped(std::string(64 << 20, 'g')), .headers = {{"Content-Encoding", "gzip"}}});
  const HeardTask heard = get(server_.url("/z"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kResponseTooLarge));
  EXPECT_LE(heard.data.size(), size_t{16} << 20);
}

TEST_F(URLSessionTest, BodyThatDoesNotDecodeFails) {
  server_.answer("/z", {.body = "this is not gzip at all", .headers = {{"Content-Encoding", "gzip"}}});
  EXPECT_TRUE(get(server_.url("/z")).failedWith(URLSessionError::kBadServerResponse));
}

TEST_F(URLSessionTest, ManyPostsInARowShareOneConnection) {
  server_.answer("/p", {.body = "ok"});
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(load(post(server_.url("/p"), std::to_string(i))).error);
  EXPECT_EQ(server_.requests().size(), 50U);
  EXPECT_EQ(server_.connectionsAccepted(), 1);
}

TEST_F(URLSessionTest, SessionsOfOneServiceShareConnections) {
  server_.answer("/p", {});
  EXPECT_FALSE(get(server_.url("/p")).error);
  startSession(waiting());
  EXPECT_FALSE(get(server_.url("/p")).error);
  EXPECT_EQ(server_.connectionsAccepted(), 1);
}

// The server may close an idle connection at any time; that costs no post.
TEST_F(URLSessionTest, ConnectionThatTheServerClosedIsReplaced) {
  server_.answer("/p", {.body = "ok", .ending = TestAnswer::Ending::kClose});
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(load(post(server_.url("/p"), "x")).error);
  EXPECT_EQ(server_.requests().size(), 5U);
}

TEST_F(URLSessionTest, ErrorStatusesCompleteWithBodyAndWithoutError) {
  for (const int status : {404, 500, 503, 304, 401}) {
    const std::string body = status == 304 ? "" : "why " + std::to_string(status);
    server_.answer("/e", {.status = status, .body = body});
    const HeardTask heard = get(server_.url("/e"));
    EXPECT_FALSE(heard.error) << status;
    ASSERT_TRUE(heard.response) << status;
    EXPECT_EQ(heard.response->statusCode, status);
    EXPECT_EQ(heard.data, body);
  }
}

TEST_F(URLSessionTest, EmptyBodyGivesNoData) {
  server_.answer("/none", {});
  const HeardTask heard = get(server_.url("/none"));
  EXPECT_EQ(heard.calls, (Names{"response", "complete"}));
  EXPECT_EQ(heard.dataCalls, 0);
}

TEST_F(URLSessionTest, ChunkedBodyArrivesWhole) {
  server_.answer("/c", {.body = "3\r\nabc\r\n4\r\ndefg\r\n0\r\nX-Trailer: 1\r\n\r\n",
                        .headers = {{"Transfer-Encoding", "chunked"}}});
  const HeardTask heard = get(server_.url("/c"));
  EXPECT_EQ(heard.data, "abcdefg");
  EXPECT_FALSE(heard.error);
}

TEST_F(URLSessionTest, ProvisionalAnswersAreNotAnnounced) {
  server_.answer("/i", {.raw = "HTTP/1.1 103 Early Hints\r\nX-Early: 1\r\n\r\n"
                               "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"});
  const HeardTask heard = get(server_.url("/i"));
  EXPECT_EQ(heard.data, "ok");
  EXPECT_EQ(heard.announced->statusCode, 200);
  EXPECT_EQ(heard.announced->header("X-Early"), std::nullopt);
}

// libcurl joins such a line to the header before, which belonged to another answer, and whose
// memory it has freed.
TEST_F(URLSessionTest, FoldedLineAtTheStartOfAnAnswerTouchesNoEarlierAnswer) {
  server_.answer("/first", {.headers = {{"X-Last", std::string(200, 'x')}}});
  server_.answer("/second", {.raw = "HTTP/1.1 200 OK\r\n folded: x\r\nContent-Length: 2\r\n\r\nok"});
  for (int round = 0; round < 20; ++round) {
    EXPECT_FALSE(get(server_.url("/first")).error);
    EXPECT_TRUE(get(server_.url("/second")).error);
  }
}

TEST_F(URLSessionTest, OtherMethodsAreSentAsGiven) {
  server_.answer("/m", {});
  URLRequest put = post(server_.url("/m"), "put it");
  put.method = "PUT";
  EXPECT_FALSE(load(put).error);
  EXPECT_FALSE(load({.url = server_.url("/m"), .method = "DELETE"}).error);
  EXPECT_EQ(server_.requests().at(0).method, "PUT");
  EXPECT_EQ(server_.requests().at(0).body, "put it");
  EXPECT_EQ(server_.requests().at(1).method, "DELETE");
}

TEST_F(URLSessionTest, RedirectIsFollowedAndOnlyTheLastResponseAnnounced) {
  server_.answer("/from", TestAnswer::redirect("/to", 307));
  server_.answer("/to", {.body = "there"});
  const HeardTask heard = load(post(server_.url("/from"), "body"));
  EXPECT_EQ(heard.data, "there");
  EXPECT_EQ(heard.announced->statusCode, 200);
  EXPECT_EQ(heard.response->url, server_.url("/to"));
  EXPECT_EQ(server_.requests().at(1).method, "POST");
  EXPECT_EQ(server_.requests().at(1).body, "body");
}

// The body is not sent again, so what describes it must not be either: a server would
// wait for bytes that never come.
TEST_F(URLSessionTest, PostRedirectedBy302BecomesAGetWithoutTheBodysHeaders) {
  server_.answer("/from", TestAnswer::redirect("/to", 302));
  server_.answer("/to", {.body = "there"});
  URLRequest request = post(server_.url("/from"), "body");
  request.headers = {{"Content-Type", "application/json"}, {"Content-Length", "4"}, {"X-Kept", "1"}};
  EXPECT_EQ(load(request).data, "there");
  const TestRequest second = server_.requests().at(1);
  EXPECT_EQ(second.method, "GET");
  EXPECT_EQ(second.header("Content-Length"), std::nullopt);
  EXPECT_EQ(second.header("Content-Type"), std::nullopt);
  EXPECT_EQ(second.header("X-Kept"), "1");
}

TEST_F(URLSessionTest, RedirectLoopEndsAfterTenRedirects) {
  server_.answer("/loop", TestAnswer::redirect("/loop"));
  EXPECT_TRUE(get(server_.url("/loop")).failedWith(URLSessionError::kTooManyRedirects));
  EXPECT_EQ(server_.requests().size(), 11U);
}

TEST_F(URLSessionTest, RedirectFromHTTPSToHTTPIsRefused) {
  HTTPSTestServer plain(HTTPSTestServer::Transport::kPlain);
  plain.answer("/secret", {.body = "in the clear"});
  server_.answer("/down", TestAnswer::redirect(plain.url("/secret"), 307));
  const HeardTask heard = load(post(server_.url("/down"), "private"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kSecureConnectionFailed));
  EXPECT_TRUE(plain.requests().empty());
  EXPECT_EQ(plain.connectionsAccepted(), 0);
}

TEST_F(URLSessionTest, RedirectFromHTTPUpToHTTPSIsFollowedButNotDownAgain) {
  HTTPSTestServer plain(HTTPSTestServer::Transport::kPlain);
  plain.answer("/up", TestAnswer::redirect(server_.url("/middle")));
  plain.answer("/end", {.body = "in the clear"});
  server_.answerInOrder("/middle", {{.body = "safe"}, TestAnswer::redirect(plain.url("/end"))});
  EXPECT_EQ(get(plain.url("/up")).data, "safe");
  EXPECT_TRUE(get(plain.url("/up")).failedWith(URLSessionError::kSecureConnectionFailed));
  EXPECT_TRUE(plain.requestsFor("/end").empty());
}

TEST_F(URLSessionTest, RedirectToAFileIsRefused) {
  server_.answer("/file", TestAnswer::redirect("file:///etc/passwd"));
  const HeardTask heard = get(server_.url("/file"));
  EXPECT_TRUE(heard.error);
  EXPECT_EQ(heard.data, "");
}

TEST_F(URLSessionTest, ServersWhoseCertificateDoesNotVerifyGetNothing) {
  using Transport = HTTPSTestServer::Transport;
  for (const Transport transport : {Transport::kUntrusted, Transport::kExpired, Transport::kWrongHost}) {
    HTTPSTestServer bad(transport);
    bad.answer("/p", {.body = "gotcha"});
    const HeardTask heard = load(post(bad.url("/p"), "private"));
    EXPECT_TRUE(heard.failedWith(URLSessionError::kSecureConnectionFailed)) << static_cast<int>(transport);
    EXPECT_FALSE(heard.response);
    EXPECT_EQ(heard.sent, 0);
    EXPECT_TRUE(bad.requests().empty());
  }
}

TEST_F(URLSessionTest, ServerThatSpeaksNoTLSIsASecurityFailure) {
  HTTPSTestServer plain(HTTPSTestServer::Transport::kPlain);
  const std::string url = "https://127.0.0.1:" + std::to_string(plain.port()) + "/";
  EXPECT_TRUE(get(url).failedWith(URLSessionError::kSecureConnectionFailed));
}

TEST_F(URLSessionTest, AuthorityFileThatIsMissingFailsEveryHTTPSTask) {
  service_ = std::make_unique<CurlURLSessionService>(
      CurlOptions{.caFile = "/nonexistent/ca.pem", .routes = routes_, .power = power_}, log_);
  startSession(waiting());
  EXPECT_TRUE(get(server_.url("/")).failedWith(URLSessionError::kSecureConnectionFailed));
}

TEST_F(URLSessionTest, WhatIsNoHTTPURLFailsWithoutATransfer) {
  for (const char* url : {"", "no url", "ftp://127.0.0.1/x", "file:///etc/passwd", "https://", "127.0.0.1/x",
                          "https://127.0.0.1:99999/", "https://a b/"}) {
    EXPECT_TRUE(get(url).failedWith(URLSessionError::kBadURL)) << url;
  }
}

TEST_F(URLSessionTest, HeadersAndMethodsThatCouldSmuggleARequestAreRefused) {
  URLRequest request{.url = server_.url("/")};
  request.headers = {{"X-A", "1\r\nX-B: 2"}};
  EXPECT_TRUE(load(request).failedWith(URLSessionError::kBadRequest));
  request.headers = {{"X-A: 1\r\nX-B", "2"}};
  EXPECT_TRUE(load(request).failedWith(URLSessionError::kBadRequest));
  request.headers.clear();
  request.method = "GET / HTTP/1.1\r\nX:";
  EXPECT_TRUE(load(request).failedWith(URLSessionError::kBadRequest));
  EXPECT_EQ(server_.connectionsAccepted(), 0);
}

TEST_F(URLSessionTest, ServerThatClosesMidAnswerLosesTheConnection) {
  server_.answer("/half", {.body = "0123456789", .ending = TestAnswer::Ending::kCloseMidAnswer});
  const HeardTask heard = get(server_.url("/half"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost));
  EXPECT_EQ(heard.data, "01234");
  ASSERT_TRUE(heard.response);
  EXPECT_EQ(heard.response->statusCode, 200);
}

TEST_F(URLSessionTest, ServerThatClosesWithoutAnswerLosesTheConnection) {
  server_.answer("/gone", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  const HeardTask heard = get(server_.url("/gone"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kConnectionLost));
  EXPECT_FALSE(heard.response);
  EXPECT_EQ(heard.calls, (Names{"complete"}));
}

TEST_F(URLSessionTest, AnswerShorterThanItsLengthIsAnError) {
  server_.answer(
      "/short",
      {.body = "short", .headers = {{"Content-Length", "500"}}, .ending = TestAnswer::Ending::kClose});
  EXPECT_TRUE(get(server_.url("/short")).failedWith(URLSessionError::kConnectionLost));
}

TEST_F(URLSessionTest, AnswerThatIsNoHTTPIsABadResponse) {
  server_.answer("/junk", {.ending = TestAnswer::Ending::kClose, .raw = "junk junk junk\n\n"});
  EXPECT_TRUE(get(server_.url("/junk")).failedWith(URLSessionError::kBadServerResponse));
}

// libcurl makes one up.
TEST_F(URLSessionTest, AnswerWithoutAStatusIsABadResponse) {
  for (const std::string status : {"HTTP/a: 5", "HTTP/1.1 99 X", "HTTP/1.1 1000 X", "HTTP/a\r\n\rX: y"}) {
    server_.answer("/none", {.raw = status + "\r\nContent-Length: 2\r\n\r\nok"});
    const HeardTask heard = get(server_.url("/none"));
    EXPECT_TRUE(heard.error) << status;
    EXPECT_FALSE(heard.announced) << status;
  }
}

TEST_F(URLSessionTest, AnswerBeyondTheLimitIsCutOff) {
  server_.answer("/huge", {.fillerBytes = int64_t{100} << 20});
  const HeardTask heard = get(server_.url("/huge"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kResponseTooLarge));
  EXPECT_LE(heard.data.size(), size_t{16} << 20);
  EXPECT_EQ(heard.response->statusCode, 200);
}

TEST_F(URLSessionTest, AnswerOfExactlyTheLimitIsTaken) {
  start({.maxResponseBytes = 100'000});
  server_.answer("/full", {.fillerBytes = 100'000});
  server_.answer("/over", {.fillerBytes = 100'001});
  EXPECT_FALSE(get(server_.url("/full")).error);
  EXPECT_TRUE(get(server_.url("/over")).failedWith(URLSessionError::kResponseTooLarge));
}

TEST_F(URLSessionTest, HeadWithoutEndIsCutOff) {
  std::string head = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 10'000; ++i) head += "X-Filler: " + std::string(90, 'h') + "\r\n";
  server_.answer("/head", {.ending = TestAnswer::Ending::kClose, .raw = head + "\r\n"});
  EXPECT_TRUE(get(server_.url("/head")).failedWith(URLSessionError::kResponseTooLarge));
}

}  // namespace
}  // namespace zun
