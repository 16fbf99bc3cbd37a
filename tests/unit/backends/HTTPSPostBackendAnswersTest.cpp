#include <set>
#include <thread>

#include "HTTPSPostBackendPostingTest.h"
#include "KeepingHelper.h"
#include "support/Gzip.h"

namespace zun {
namespace {

// --- URLs ------------------------------------------------------------------------

TEST_F(HTTPSPostBackendPostingTest, ReleaseBuildsPostToHTTPSWhateverTheSchemeConfigured) {
  const std::string rest = server_.url("/post").substr(std::string("https").size());
  for (const char* scheme : {"http", "ftp", ""}) {
    EXPECT_EQ(endOfPostTo(scheme + rest).error, std::nullopt) << scheme;
  }
  EXPECT_EQ(server_.requestsFor("/post").size(), 3U);
}

TEST_F(HTTPSPostBackendPostingTest, TextAfterASecondSchemeSeparatorIsDroppedOnlyWithTheScheme) {
  const auto keeping = std::make_shared<KeepingHelper>();
  const auto backend = start(postingClient());
  backend->setReportingSessionConnectivityDelegate(keeping);
  const auto sentTo = [&](const char* url) {
    backend->setPostURL(url);
    backend->postJSONMessage("{}", 0, std::nullopt, std::nullopt, nullptr);
    return keeping->requests.back().url;
  };
  EXPECT_EQ(sentTo("http://a.example/to?u=b://c"), "https://a.example/to?u=b");
  EXPECT_EQ(sentTo("HTTPS://a.example/to?u=b://c"), "HTTPS://a.example/to?u=b://c");
  EXPECT_EQ(sentTo("HTtp://a.example"), "https://a.example");
  EXPECT_EQ(sentTo("a.example/post"), "a.example/post");
  EXPECT_EQ(sentTo("http:/a.example"), "http:/a.example");
  EXPECT_EQ(sentTo("http://"), "https://");
  EXPECT_EQ(sentTo(""), "");
}

TEST_F(HTTPSPostBackendPostingTest, InternalBuildsKeepTheURLAsConfigured) {
  becomeInternalBuild();
  HTTPSTestServer plain(HTTPSTestServer::Transport::kPlain);
  plain.answer("/post", {});
  const std::string url = plain.url("/post");
  ASSERT_EQ(url.find("http://"), 0U);
  EXPECT_EQ(endOfPostTo(url).error, std::nullopt);
  EXPECT_EQ(plain.requestsFor("/post").size(), 1U);
}

TEST_F(HTTPSPostBackendPostingTest, WithoutURLTheCompletionHearsSoAtOnce) {
  const auto backend = connected(make(postingClient()));
  const auto outcome = std::make_shared<Outcome>();
  backend->postJSONMessage("{}", 0, std::nullopt, std::nullopt, keepIn(outcome));
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_EQ(outcome->result, std::nullopt);
  EXPECT_EQ(outcome->error,
            (Error{std::string(zunreporting::kZunReportingErrorDomain), -1, "postURL is nil"}));
  backend->postJSONMessage("{}", 0, std::nullopt, std::nullopt, nullptr);
}

// --- answers ---------------------------------------------------------------------

TEST_F(HTTPSPostBackendPostingTest, FlushCompletesWithTheReadableTextAndNoError) {
  const auto backend = connectedBackend();
  send(*backend, 1);
  send(*backend, 2);
  const End end = endOf(flush(*backend));
  EXPECT_EQ(end.error, std::nullopt);
  EXPECT_EQ(eventsOf(end.result).size(), 2U);
  const TestRequest request = onlyRequest();
  EXPECT_EQ(request.path, "/post");
  EXPECT_EQ(*parseJSON(inflatedGzip(request.body)), *parseJSON(*end.result));
}

TEST_F(HTTPSPostBackendPostingTest, ServerErrorDisablesTheBackend) {
  for (const int status : {500, 503, 599}) {
    server_.answer("/post", {.status = status});
    const auto backend = connectedBackend();
    send(*backend, 1);
    const End end = endOf(flush(*backend));
    const std::string text = fmt::format("backend httpPost disabled by server {} return code", status);
    EXPECT_EQ(end.error, (Error{std::string(zunreporting::kZunReportingErrorDomain), status, text}));
    expectDefaultLine("postJSONMessage: " + text);
    EXPECT_EQ(backend->state(), ZunBackendStateDisabled);
    EXPECT_EQ(send(*backend, 1, 1), std::nullopt);
  }
}

TEST_F(HTTPSPostBackendPostingTest, OtherStatusesAreNoFailures) {
  for (const int status : {200, 204, 304, 400, 404, 429, 499, 600}) {
    server_.answer("/post", {.status = status});
    const auto backend = connectedBackend();
    EXPECT_EQ(endOf(post(*backend, "{}")).error, std::nullopt) << status;
    EXPECT_EQ(backend->state(), ZunBackendStateEnabled) << status;
  }
}

TEST_F(HTTPSPostBackendPostingTest, DisabledByTheServerUntilTheNextUpdate) {
  server_.answer("/post", {.status = 500});
  const auto backend = connectedBackend();
  endOf(post(*backend, "{}"));
  EXPECT_EQ(backend->state(), ZunBackendStateDisabled);
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
}

TEST_F(HTTPSPostBackendPostingTest, FrozenBackendStaysDisabledByTheServer) {
  server_.answer("/post", {.status = 500});
  const auto backend = connectedBackend();
  send(*backend, 1);
  endOf(flush(*backend));
  EXPECT_EQ(backend->updateState(), ZunBackendStateDisabled);
}

// --- faults ----------------------------------------------------------------------

TEST_F(HTTPSPostBackendPostingTest, CertificatesThatDoNotVerifyAreNeverAccepted) {
  for (const auto transport : {HTTPSTestServer::Transport::kUntrusted, HTTPSTestServer::Transport::kExpired,
                               HTTPSTestServer::Transport::kWrongHost}) {
    HTTPSTestServer server(transport);
    server.handleOthers([](const TestRequest&) { return TestAnswer{}; });
    expectOnePostError(endOfPostTo(server.url("/post")));
    EXPECT_TRUE(server.requests().empty());
  }
}

TEST_F(HTTPSPostBackendPostingTest, RefusedConnectionIsAnErrorThatChangesNoState) {
  const auto backend = connectedBackend();
  server_.stop();
  send(*backend, 1);
  const End end = endOf(flush(*backend));
  ASSERT_TRUE(end.error);
  EXPECT_EQ(end.error->domain, kURLErrorDomain);
  expectErrors({"HTTPSPostBackend(postJsonMessage): post error: " + end.error->description});
  EXPECT_EQ(backend->state(), ZunBackendStateEnabled);
  EXPECT_EQ(backend->batchedEventsSize(), 0U);  // what was lost is not posted again
}

TEST_F(HTTPSPostBackendPostingTest, ServerThatClosesWithoutAnAnswerIsAnError) {
  server_.answer("/post", TestAnswer::ended(Ending::kNoAnswer));
  expectOnePostError(endOfPostTo(server_.url("/post")));
}

TEST_F(HTTPSPostBackendPostingTest, ServerThatSpeaksNoTLSIsAnError) {
  HTTPSTestServer plain(HTTPSTestServer::Transport::kPlain);
  plain.handleOthers([](const TestRequest&) { return TestAnswer{}; });
  expectOnePostError(endOfPostTo("https" + plain.url("/post").substr(std::string("http").size())));
  EXPECT_TRUE(plain.requests().empty());
}

TEST_F(HTTPSPostBackendPostingTest, ConnectionClosedMidAnswerIsAnErrorThatChangesNoState) {
  server_.answer("/post", {.body = "half of this", .ending = Ending::kCloseMidAnswer});
  const auto backend = connectedBackend();
  send(*backend, 1);
  const End end = endOf(flush(*backend));
  ASSERT_TRUE(end.error);
  EXPECT_EQ(eventsOf(end.result).size(), 1U);  // the text of what was sent, all the same
  expectErrors({"HTTPSPostBackend(postJsonMessage): post error: " + end.error->description});
  EXPECT_EQ(backend->state(), ZunBackendStateEnabled);
}

TEST_F(HTTPSPostBackendPostingTest, ServerErrorClosedMidAnswerCountsAsServerError) {
  server_.answer("/post", {.status = 502, .body = "half of this", .ending = Ending::kCloseMidAnswer});
  const auto backend = connectedBackend();
  const End end = endOf(post(*backend, "{}"));
  ASSERT_TRUE(end.error);
  EXPECT_EQ(end.error->code, 502);
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
  EXPECT_EQ(backend->state(), ZunBackendStateDisabled);
}

TEST_F(HTTPSPostBackendPostingTest, RedirectedPostEndsAtItsTarget) {
  server_.answer("/post", TestAnswer::redirect(server_.url("/elsewhere"), 307));
  server_.answer("/elsewhere", {.status = 503});
  const auto backend = connectedBackend();
  const End end = endOf(post(*backend, "{\"a\":1}"));
  ASSERT_TRUE(end.error);
  EXPECT_EQ(end.error->code, 503);
  ASSERT_EQ(server_.requestsFor("/elsewhere").size(), 1U);
  EXPECT_EQ(server_.requestsFor("/elsewhere")[0].body, "{\"a\":1}");
}

TEST_F(HTTPSPostBackendPostingTest, EndlessRedirectsAreAnError) {
  server_.answer("/post", TestAnswer::redirect(server_.url("/post"), 307));
  expectOnePostError(endOfPostTo(server_.url("/post")));
}

TEST_F(HTTPSPostBackendPostingTest, URLThatIsNoneIsAnError) {
  for (const char* url : {"https://", "https://[::", "not a url at all", ""}) {
    expectOnePostError(endOfPostTo(url));
  }
}

TEST_F(HTTPSPostBackendPostingTest, ServerThatHangsHoldsUpNeitherMessagesNorState) {
  server_.answer("/post", TestAnswer::ended(Ending::kNever));
  const auto backend = connectedBackend();
  send(*backend, 1);
  auto hanging = flush(*backend);
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(send(*backend, 2), std::nullopt);
  EXPECT_EQ(backend->state(), ZunBackendStateEnabled);
  EXPECT_TRUE(send(*backend, 3, 1).has_value());
  server_.stop();
  EXPECT_TRUE(endOf(std::move(hanging)).error.has_value());
  // The realtime post and the flush that it forces end so too, each when it does.
  const auto deadline = std::chrono::steady_clock::now() + HTTPSTestServer::kDeadline;
  while (platform_.log.linesOf(LogLevel::kError).size() < 3 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_EQ(platform_.log.takeErrors().size(), 3U);
  helper_->invalidate();
}

TEST_F(HTTPSPostBackendPostingTest, AnswerAfterTheBackendIsGoneStillReachesTheCompletion) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/post", {.status = 503, .gate = gate});
  auto backend = connectedBackend();
  send(*backend, 1);
  auto waiting = flush(*backend);
  ASSERT_TRUE(server_.waitForRequests(1));
  const std::weak_ptr<HTTPSPostBackend> watched = backend;
  backend.reset();
  EXPECT_TRUE(watched.expired());  // a post under way does not keep it
  gate->open();
  EXPECT_EQ(endOf(std::move(waiting)).error->code, 503);
}

TEST_F(HTTPSPostBackendPostingTest, HelperThatIsGoneLetsGoOfTheCompletion) {
  const auto backend = connectedBackend();
  send(*backend, 1);
  helper_->invalidate();
  const std::weak_ptr<ReportingSessionConnectivityHelper> watched = helper_;
  helper_.reset();
  // Its queue may hold it a little longer.
  const auto deadline = std::chrono::steady_clock::now() + HTTPSTestServer::kDeadline;
  while (!watched.expired() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  const auto outcome = std::make_shared<Outcome>();
  EXPECT_TRUE(backend->flushMessagesWithCompletion(keepIn(outcome)).has_value());
  EXPECT_EQ(outcome->calls, 0);
  EXPECT_EQ(outcome.use_count(), 1);
  EXPECT_TRUE(server_.requests().empty());
}

// Many events through all of it: none is lost, none comes twice.
TEST_F(HTTPSPostBackendPostingTest, EveryEventOfManyBatchesArrivesOnce) {
  const auto backend = connectedBackend();
  constexpr int kEvents = 1000;
  size_t posts = 1;
  for (int i = 0; i < kEvents; ++i) posts += send(*backend, static_cast<uint16_t>(i % 3)) ? 1 : 0;
  EXPECT_EQ(endOf(flush(*backend)).error, std::nullopt);
  ASSERT_TRUE(server_.waitForRequests(posts));
  std::multiset<int64_t> numbers;
  for (const TestRequest& request : server_.requests()) {
    for (const Value& event : eventsOf(inflatedGzip(request.body))) {
      numbers.insert((*event.dictionary())["_eventNumber"].intValue());
    }
  }
  EXPECT_EQ(numbers.size(), size_t{kEvents});
  EXPECT_EQ(std::set<int64_t>(numbers.begin(), numbers.end()).size(), size_t{kEvents});
}

}  // namespace
}  // namespace zun
