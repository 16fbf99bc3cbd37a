// Sessions with the HTTPS backend, a connectivity helper and a server, all real.

#include <thread>

#include "RecordingReply.h"
#include "SessionTest.h"
#include "session/ClientSessionObject.h"
#include "support/HTTPSTestServer.h"

namespace zun {
namespace {

class SessionPostingTest : public PlatformTest {
 protected:
  SessionPostingTest() : PlatformTest(nullptr, HTTPSTestServer::caFile()), world_(platform_) {
    world_.realBackends = true;
    server_.answer("/events", {.status = 200});
    platform_.defaults.setObject("com.vantix.diagnostics", "DiagnosticSubmissionEnabled", true);
  }
  void TearDown() override {
    session_.reset();
    world_.waitUntilQuiet();
    PlatformTest::TearDown();
  }

  /// A storebag whose HTTP post backend posts to the server.
  Dictionary storebag(const Dictionary& moreOfClient = {}) const {
    Dictionary client = {{"filters", Array{}},
                         {"sampling_threshold", 1.0},
                         {"locale_whitelist", Array{"DE"}},
                         {"post_url", server_.url("/events")},
                         {"event_threshold", 100}};
    client.addEntries(moreOfClient);
    return {
        {"httpPost", Dictionary{{"clients", Array{Value(client)}}, {"display_url", "https://show.example"}}}};
  }
  static Dictionary batching(int64_t sessionID) {
    return sessionInfo(sessionID, {{kZunReportingSessionInfoBatchEvent, true}});
  }

  std::string call(std::string_view member, const Array& arguments = {}) {
    const RecordingReply recording = begin(member, arguments);
    EXPECT_TRUE(recording.wait());
    return recording.description();
  }
  RecordingReply begin(std::string_view member, const Array& arguments = {}) {
    const auto members = clientSessionInterface().members;
    RecordingReply recording;
    for (size_t i = 0; i < members.size(); ++i) {
      if (members[i].name == member)
        makeClientSessionObject(session_)->handleCall(i, arguments, recording.reply());
    }
    return recording;
  }
  std::string configureAndStart(const Dictionary& info, const std::optional<Dictionary>& user) {
    call("setSessionInfo", {info, user ? just(*user) : nothing(), Array(), false});
    return call("startConfigWithCompletionHandler");
  }
  /// Ends the session: one error line tells of the first loss, the count comes at the end.
  void expectLost(int session, int count, const std::string& why) {
    session_.reset();
    world_.waitUntilQuiet();
    const std::string number = std::to_string(session);
    expectErrors({"postJSONMessage: session " + number + " loses events: " + why});
    expectDefaultLine("postJSONMessage: session " + number + " has lost " + std::to_string(count) +
                      " events: " + why);
  }
  static constexpr const char* kNoUser =
      "there is no user information, or the user has changed without a new start";

  HTTPSTestServer server_;
  SessionWorld world_;
  std::shared_ptr<ReportingdSession> session_ = world_.makeSession();
};

TEST_F(SessionPostingTest, EventsReachTheServerAndTheirTextTheClient) {
  world_.agent->storebag = storebag();
  EXPECT_EQ(configureAndStart(sessionInfo(7), userInfo("C", "S")), "return (((\"httpPost\")))");
  const std::string answer =
      call("sendMessageWithDictionary", {message(5, 6, withPayload({{"key", "value"}}))});
  EXPECT_NE(answer.find("\"key\": \"value\""), std::string::npos) << answer;
  ASSERT_TRUE(server_.waitForRequests(2));  // the start message and the event
  EXPECT_EQ(call("fetchDisplayURL"), "return (\"https://show.example\")");
}

TEST_F(SessionPostingTest, BatchIsPostedAtTheEndOfTheSession) {
  world_.agent->storebag = storebag();
  configureAndStart(batching(7), userInfo("C", "S"));
  EXPECT_EQ(call("sendMessageWithDictionary", {message(5, 6)}), "return (())");
  EXPECT_TRUE(server_.requests().empty());
  session_.reset();
  ASSERT_TRUE(server_.waitForRequests(1));
}

TEST_F(SessionPostingTest, FlushIsAnsweredWhenThePostHasEnded) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/events", {.status = 200, .gate = gate});
  world_.agent->storebag = storebag();
  configureAndStart(batching(7), userInfo("C", "S"));
  const RecordingReply flush = begin("flushMessagesWithCompletion");
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(call("sendMessageWithDictionary", {message(5, 6)}), "return (())");
  EXPECT_EQ(flush.description(), "nothing");
  gate->open();
  ASSERT_TRUE(flush.wait());
  EXPECT_TRUE(flush.description().ends_with(", ())")) << flush.description();
  EXPECT_EQ(call("flushMessagesWithCompletion").find("return ((\""), 0U);  // the message sent meanwhile
}

TEST_F(SessionPostingTest, FlushWithNothingToFlushIsAnError) {
  world_.agent->storebag = storebag();
  configureAndStart(sessionInfo(7), userInfo("C", "S"));
  EXPECT_EQ(call("flushMessagesWithCompletion"),
            "return ((), ((\"com.vantix.zunreporting.error\", -1, \"Nothing to flush\")))");
}

TEST_F(SessionPostingTest, ServerErrorAnswersTheFlushWithItsStatus) {
  server_.answer("/events", {.status = 503});
  world_.agent->storebag = storebag();
  configureAndStart(batching(7), userInfo("C", "S"));
  const std::string answer = call("flushMessagesWithCompletion");
  EXPECT_TRUE(
      answer.ends_with("((\"com.vantix.zunreporting.error\", 503, \"backend httpPost disabled by "
                       "server 503 return code\")))"))
      << answer;
  EXPECT_EQ(call("fetchStatesWithUserInfo", {just(userInfo("C", "S"))}), "return ((()))");
}

TEST_F(SessionPostingTest, EventsThatWaitedForTheUserArePostedOnceTheUserIsKnown) {
  world_.agent->storebag = storebag();
  EXPECT_EQ(configureAndStart(batching(7), std::nullopt), "return ((()))");
  call("sendMessageWithDictionary", {message(5, 6)});
  EXPECT_EQ(call("fetchStatesWithUserInfo", {just(userInfo("C", "S"))}), "return (((\"httpPost\")))");
  EXPECT_EQ(call("flushMessagesWithCompletion").find("return ((\""), 0U);
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(server_.requests()[0].header("X-ZUN-Client-Name"), "C");
}

// Without a user there is no connectivity helper, so nothing can be posted, and the client
// is told rather than left to wait.
TEST_F(SessionPostingTest, FlushThatCannotBePostedAnswersNoReply) {
  world_.agent->storebag = storebag();
  configureAndStart(sessionInfo(7, {{kZunReportingSessionInfoRequireUserInfo, false},
                                    {kZunReportingSessionInfoBatchEvent, true}}),
                    std::nullopt);
  EXPECT_EQ(call("flushMessagesWithCompletion"), "error com.vantix.zunreportingd.Error.NoReply");
  expectLost(7, 2, kNoUser);  // the start message, and the end message that is still to come
}

TEST_F(SessionPostingTest, PostsOfBackendsWhoseUserHasGoneAreCountedAndToldOnce) {
  world_.agent->storebag = storebag();
  configureAndStart(sessionInfo(7, {{kZunReportingSessionInfoRequireUserInfo, false}}), userInfo("C", "S"));
  expectErrors({"setSessionInfo: Configure session: user info provided without requiring it"});
  ASSERT_TRUE(server_.waitForRequests(1));
  const std::weak_ptr<ReportingSessionConnectivityHelper> helper = session_->connectivityHelper();
  world_.agent->forgetHelpers();
  call("fetchStatesWithUserInfo", {nothing()});
  while (!helper.expired()) std::this_thread::yield();  // its URL session ends first
  const std::string answer =
      call("sendMessageWithDictionary", {message(5, 6, withPayload({{"key", "value"}}))});
  EXPECT_NE(answer.find("\"key\": \"value\""), std::string::npos) << answer;  // its text is told all the same
  call("sendMessageWithDictionary", {message(5, 6)});
  expectLost(7, 3, kNoUser);
}

// Others hold it as well, and its release takes its time.
TEST_F(SessionPostingTest, SessionWithoutAUserAnyMorePostsThroughTheFormersConnectionWhileThatLives) {
  world_.agent->storebag = storebag();
  configureAndStart(sessionInfo(7, {{kZunReportingSessionInfoRequireUserInfo, false}}), userInfo("C", "S"));
  expectErrors({"setSessionInfo: Configure session: user info provided without requiring it"});
  ASSERT_TRUE(server_.waitForRequests(1));
  call("fetchStatesWithUserInfo", {nothing()});
  call("sendMessageWithDictionary", {message(5, 6)});
  ASSERT_TRUE(server_.waitForRequests(2));
}

TEST_F(SessionPostingTest, AnotherUserWithoutANewStartLosesPostsOnceTheFormersConnectionHasGone) {
  world_.agent->storebag = storebag();
  configureAndStart(sessionInfo(7), userInfo("C", "S"));
  ASSERT_TRUE(server_.waitForRequests(1));
  const std::weak_ptr<ReportingSessionConnectivityHelper> helper = session_->connectivityHelper();
  call("setSessionInfo", {sessionInfo(7), just(userInfo("Other", "S")), Array(), false});
  call("sendMessageWithDictionary", {message(5, 6)});
  ASSERT_TRUE(server_.waitForRequests(2));
  world_.agent->forgetHelpers();
  while (!helper.expired()) std::this_thread::yield();  // its URL session ends first
  call("sendMessageWithDictionary", {message(5, 6)});
  expectLost(7, 2, kNoUser);
}

TEST_F(SessionPostingTest, LossesAreToldAtTheEndOfTheSessionThoughAPostIsUnderWay) {
  Dictionary both = storebag({{"post_url", 5}});
  both.set("httpPost2", storebag()["httpPost"]);
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/events", {.status = 200, .gate = gate});
  world_.agent->storebag = both;
  configureAndStart(sessionInfo(7), userInfo("C", "S"));
  ASSERT_TRUE(server_.waitForRequests(1));
  session_.reset();
  const std::string why = "the storebag has no post_url for it";
  expectDefaultLine("postJSONMessage: session 7 has lost 2 events: " + why);
  gate->open();
  expectLost(7, 2, why);
  EXPECT_EQ(platform_.log.count(LogLevel::kDefault, "postJSONMessage: session 7 has lost 2 events: " + why),
            1);
}

TEST_F(SessionPostingTest, EveryEventOfABatchThatIsNotPostedIsCounted) {
  world_.agent->storebag = storebag();
  configureAndStart(batching(7), userInfo("C", "S"));
  for (int number = 0; number < 4; ++number) call("sendMessageWithDictionary", {message(5, 6)});
  world_.agent->invalidateHelpers();
  session_.reset();
  expectLost(7, 6, "the connectivity helper is not active");
}

TEST_F(SessionPostingTest, StorebagEntryWithoutPostURLLosesEventsWithAnErrorLine) {
  world_.agent->storebag = storebag({{"post_url", 5}});
  configureAndStart(sessionInfo(7), userInfo("C", "S"));
  call("sendMessageWithDictionary", {message(5, 6)});
  expectLost(7, 3, "the storebag has no post_url for it");
}

// What the server answers, or a broken connection, is no silent loss.
TEST_F(SessionPostingTest, AnsweredAndFailedPostsAreNotCountedAsLost) {
  world_.agent->storebag = storebag();
  server_.answer("/events", {.status = 404});
  configureAndStart(sessionInfo(7), userInfo("C", "S"));
  ASSERT_TRUE(server_.waitForRequests(1));
  session_.reset();
  world_.waitUntilQuiet();
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDefault))
    EXPECT_EQ(line.find("has lost"), std::string::npos) << line;
}

TEST_F(SessionPostingTest, SessionMayEndWhileItsFlushIsUnderWay) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/events", {.status = 200, .gate = gate});
  world_.agent->storebag = storebag();
  configureAndStart(batching(7), userInfo("C", "S"));
  const RecordingReply flush = begin("flushMessagesWithCompletion");
  ASSERT_TRUE(server_.waitForRequests(1));
  session_.reset();
  gate->open();
  ASSERT_TRUE(flush.wait());
  EXPECT_TRUE(flush.description().ends_with(", ())")) << flush.description();
}

TEST_F(SessionPostingTest, SingleMessageIsPosted) {
  world_.agent->storebag = storebag();
  EXPECT_EQ(call("sendMessageWithSessionInfo",
                 {sessionInfo(9), just(userInfo("C", "S")), 5, 6, just(Dictionary{{"key", "value"}})}),
            "return (\"finished\")");
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(server_.requests()[0].header("X-ZUN-Event-Map"), "5 6");
}

TEST_F(SessionPostingTest, SessionsOfAHierarchyPostWhileTheirParentReplacesItsUser) {
  world_.agent->storebag = storebag({{"event_threshold", 5}});
  const auto start = [this](int64_t number, int64_t level) {
    auto session = world_.makeSession();
    Dictionary info = batching(number);
    info.addEntries(inHierarchy("token", level));
    session->setSessionInfo(info, userInfo("C", "S"), {}, false);
    session->startConfigWithCompletionHandler(nullptr);
    return session;
  };
  const auto parent = start(1, 0);
  const auto child = start(2, 1);
  constexpr int kRounds = 40;
  std::thread sender([&child] {
    for (int round = 0; round < kRounds; ++round) {
      child->sendMessageWithDictionary(message(5, 6, withPayload({{"round", round}})), nullptr);
      child->updateSharedDataForKey("round", round);
    }
    child->flushMessagesWithCompletion(nullptr);
  });
  for (int round = 0; round < kRounds; ++round) {
    parent->sendMessageWithDictionary(message(5, 6, withPayload({{"round", round}})), nullptr);
    parent->fetchStatesWithUserInfo(userInfo("C" + std::to_string(round % 2), "S"), nullptr);
  }
  sender.join();
  ASSERT_TRUE(server_.waitForRequests(2));
}

}  // namespace
}  // namespace zun
