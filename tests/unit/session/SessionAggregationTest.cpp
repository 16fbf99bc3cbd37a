// Copies of messages for the clients that aggregate.

#include "SessionTest.h"
#include "support/LockProbe.h"

namespace zun {
namespace {

constexpr double kNow = 1'700'000'000.25;

class SessionAggregationTest : public SessionTest {
 protected:
  SessionAggregationTest() {
    session_ = world_.makeSession(own_);
    agent_.storebag = Dictionary{{"test", Dictionary{}}};
    platform_.clock.setTimeOfDay({1'700'000'000, 250'000});
  }
  void TearDown() override {
    parent_.reset();
    SessionTest::TearDown();
  }

  /// A session on level 1 of its hierarchy, started, its start message forgotten.
  void startChild(bool isAggregator, const std::optional<Dictionary>& user = userInfo("C", "S")) {
    session_->setSessionInfo(childInfo(), user, {}, isAggregator);
    start();
    forget();
  }
  void startParent(bool isAggregator) {
    parent_ = world_.makeSession(parents_);
    parent_->setSessionInfo(sessionInfo(1, inHierarchy("family", 0)), userInfo("P", "S"), {}, isAggregator);
  }
  void forget() {
    own_->takeRemoteCalls();
    parents_->takeRemoteCalls();
    agent_.forgetCalls();
  }
  static Dictionary childInfo() { return sessionInfo(7, inHierarchy("family", 1)); }
  static std::string described(const std::vector<Array>& calls) {
    Array all;
    for (const Array& call : calls) all.append(call);
    return Value(all).description();
  }
  /// What a client is sent for one message.
  static std::string copy(const Dictionary& info, int category, int type, const Value& payload) {
    return Value(Array{Array{just(info), kNow, category, type, payload}}).description();
  }
  static std::string endSignal() {
    return Value(Array{Array{nothing(), 0.0, 0, 0, nothing()}}).description();
  }

  std::shared_ptr<FakeConnection> own_ = std::make_shared<FakeConnection>(std::map<std::string, bool>{});
  std::shared_ptr<FakeConnection> parents_ = std::make_shared<FakeConnection>(std::map<std::string, bool>{});
  std::shared_ptr<ReportingdSession> parent_;
};

TEST_F(SessionAggregationTest, ChildsMessageGoesToItsAncestorsClientWithTheChildsSessionInfo) {
  startParent(/*isAggregator=*/true);
  startChild(/*isAggregator=*/false);
  send(message(5, 6, withPayload({{"key", "value"}})));
  EXPECT_EQ(described(parents_->takeRemoteCalls()),
            copy(childInfo(), 5, 6,
                 just(Dictionary{{"key", "value"},
                                 {kZunReportingUserInfoClientName, "C"},
                                 {kZunReportingUserInfoServiceName, "S"}})));
  EXPECT_TRUE(own_->takeRemoteCalls().empty());
}

TEST_F(SessionAggregationTest, AggregatingChildsOwnClientGetsNothingWhileAnAncestorAggregates) {
  startParent(/*isAggregator=*/true);
  startChild(/*isAggregator=*/true);
  send(message(5, 6));
  EXPECT_EQ(parents_->takeRemoteCalls().size(), 1U);
  EXPECT_TRUE(own_->takeRemoteCalls().empty());
}

TEST_F(SessionAggregationTest, ChildThatAggregatesItselfGetsItsMessagesWhereNoAncestorDoes) {
  startParent(/*isAggregator=*/false);
  startChild(/*isAggregator=*/true);
  send(message(5, 6));
  EXPECT_EQ(described(own_->takeRemoteCalls()), copy(childInfo(), 5, 6, nothing()));
  EXPECT_TRUE(parents_->takeRemoteCalls().empty());
}

TEST_F(SessionAggregationTest, StandaloneAggregatorGetsItsMessagesAndTheAgentIsNotAsked) {
  session_->setSessionInfo(sessionInfo(7), userInfo("C", "S"), {}, true);
  start();
  forget();
  send(message(5, 6));
  EXPECT_EQ(described(own_->takeRemoteCalls()), copy(sessionInfo(7), 5, 6, nothing()));
  EXPECT_EQ(agent_.countOfCalls("getAncestorWithAggregatorForSession"), 0);
}

TEST_F(SessionAggregationTest, WithoutAnyAggregatorNothingIsSent) {
  startParent(/*isAggregator=*/false);
  startChild(/*isAggregator=*/false);
  send(message(5, 6));
  EXPECT_EQ(agent_.countOfCalls("getAncestorWithAggregatorForSession"), 1);
  EXPECT_TRUE(own_->takeRemoteCalls().empty());
  EXPECT_TRUE(parents_->takeRemoteCalls().empty());
}

TEST_F(SessionAggregationTest, MessageWithoutPayloadHasNoneThoughThereIsUserInformation) {
  startChild(/*isAggregator=*/true);
  send(message(5, 6));
  EXPECT_EQ(described(own_->takeRemoteCalls()), copy(childInfo(), 5, 6, nothing()));
}

TEST_F(SessionAggregationTest, PayloadThatIsNoDictionaryIsNone) {
  startChild(/*isAggregator=*/true);
  send(message(5, 6, {{kZunReportingMessageParametersPayload, "text"}}));
  EXPECT_EQ(described(own_->takeRemoteCalls()), copy(childInfo(), 5, 6, nothing()));
}

TEST_F(SessionAggregationTest, EmptyPayloadCarriesTheUserInformation) {
  startChild(/*isAggregator=*/true);
  send(message(5, 6, withPayload({})));
  EXPECT_EQ(described(own_->takeRemoteCalls()), copy(childInfo(), 5, 6, just(userInfo("C", "S"))));
}

TEST_F(SessionAggregationTest, UserInformationReplacesPayloadOfTheSameKey) {
  startChild(/*isAggregator=*/true);
  send(message(5, 6, withPayload({{kZunReportingUserInfoServiceName, "mine"}, {"key", 1}})));
  EXPECT_EQ(described(own_->takeRemoteCalls()),
            copy(childInfo(), 5, 6,
                 just(Dictionary{{kZunReportingUserInfoServiceName, "S"},
                                 {"key", 1},
                                 {kZunReportingUserInfoClientName, "C"}})));
  // What the backends get is the client's alone.
  EXPECT_EQ(backend("test").sent.back().message["ClientData"],
            Value(Dictionary{{kZunReportingUserInfoServiceName, "mine"}, {"key", 1}}));
}

TEST_F(SessionAggregationTest, WithoutUserInformationThePayloadGoesAsItIs) {
  startChild(/*isAggregator=*/true, std::nullopt);
  send(message(5, 6, withPayload({{"key", 1}})));
  EXPECT_EQ(described(own_->takeRemoteCalls()), copy(childInfo(), 5, 6, just(Dictionary{{"key", 1}})));
}

TEST_F(SessionAggregationTest, StartAndEndMessagesAreAggregatedToo) {
  startParent(/*isAggregator=*/true);
  session_->setSessionInfo(childInfo(), std::nullopt, {}, false);
  start();
  ASSERT_EQ(parents_->takeRemoteCalls().size(), 1U);
  session_.reset();
  const auto calls = parents_->takeRemoteCalls();
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0][2], Value(0));
  EXPECT_EQ(calls[0][3], Value(1));
  EXPECT_TRUE((*(*calls[0][4].array())[0].dictionary()).contains("ProcessMemoryUsage"));
}

TEST_F(SessionAggregationTest, MessageThatEveryBackendRefusesIsStillAggregatedAndAnswersNothing) {
  agent_.storebag = Dictionary{{"white", Dictionary{{"event_whitelist", Array{1}}, {"response", "r"}}},
                               {"black", Dictionary{{"event_blacklist", Array{5}}, {"response", "r"}}}};
  startChild(/*isAggregator=*/true);
  backend("black").sent.clear();
  EXPECT_EQ(send(message(5, 6)), std::nullopt);
  EXPECT_EQ(own_->takeRemoteCalls().size(), 1U);
  EXPECT_TRUE(backend("black").sent.empty());
}

TEST_F(SessionAggregationTest, AggregationComesBeforeTheBackendsAndTheirLists) {
  agent_.storebag =
      Dictionary{{"denies", Dictionary{{"event_blacklist", Array{5}}}}, {"takes", Dictionary{}}};
  startChild(/*isAggregator=*/true);
  platform_.log.clear();
  std::vector<std::string> order;
  own_->onCall = [this, &order] {
    order.emplace_back("copy");
    EXPECT_EQ(platform_.log.lines().size(), 1U);  // "Sending message": no list was looked at
  };
  backend("takes").onCall = [&order] { order.emplace_back("backend"); };
  send(message(5, 6));
  EXPECT_EQ(order, (std::vector<std::string>{"copy", "backend"}));
  expectDebugLine(
      "sendMessageWithDictionary: Dropping event with category 5 as it is blacklisted for backend denies");
  own_->onCall = nullptr;
  backend("takes").onCall = nullptr;
}

// An ancestor cannot end meanwhile, but nobody's start waits for the copy to be encoded.
TEST_F(SessionAggregationTest, CopiesForAnAncestorAreEncodedBeforeTheAgentsLockAndHandedOverUnderIt) {
  startParent(/*isAggregator=*/true);
  startChild(/*isAggregator=*/false);
  std::vector<std::thread> probers;
  std::vector<std::string> trace;
  const auto note = [&](const std::string& what) {
    probers.emplace_back();
    trace.push_back(what + (isFree(agent_.objectLock(), probers.back()) ? " without" : " under"));
  };
  own_->onEncode = [&note] { note("encoded"); };
  parents_->onCall = [&note] { note("handed over"); };
  session_->sendMessageWithDictionary(message(5, 6), nullptr);
  parent_->setSessionInfo(sessionInfo(1, inHierarchy("family", 0)), std::nullopt, {}, false);
  session_->sendMessageWithDictionary(message(5, 7), nullptr);  // encoded in vain
  parent_->setSessionInfo(sessionInfo(1, inHierarchy("family", 0)), std::nullopt, {}, true);
  session_->sendMessageWithDictionary(message(5, 8), nullptr);
  for (std::thread& prober : probers) prober.join();
  EXPECT_EQ(trace, (std::vector<std::string>{"encoded without", "handed over under", "encoded without",
                                             "encoded without", "handed over under"}));
  EXPECT_EQ(parents_->takeRemoteCalls().size(), 2U);
  own_->onEncode = nullptr;
  parents_->onCall = nullptr;
}

TEST_F(SessionAggregationTest, CopiesAreEncodedOnlyWhereSomebodyAggregates) {
  startParent(/*isAggregator=*/false);
  startChild(/*isAggregator=*/false);
  int encoded = 0;
  own_->onEncode = [&encoded] { ++encoded; };
  send(message(5, 6));
  EXPECT_EQ(encoded, 0);
  own_->onEncode = nullptr;
}

TEST_F(SessionAggregationTest, RefusedMessagesAreNotAggregated) {
  session_->setSessionInfo(childInfo(), std::nullopt, {}, true);
  send(message(5, 6));  // no backends
  start();
  forget();
  send({{kZunReportingMessageParametersType, 6}});
  send({{kZunReportingMessageParametersCategory, 5}});
  EXPECT_TRUE(own_->takeRemoteCalls().empty());
  EXPECT_EQ(agent_.countOfCalls("getAncestorWithAggregatorForSession"), 0);
  expectDebugLine("sendMessageWithDictionary: No backends available to send message");
  expectDebugLine("sendMessageWithDictionary: Missing mandatory parameter 'category'");
  expectDebugLine("sendMessageWithDictionary: Missing mandatory parameter 'type'");
}

TEST_F(SessionAggregationTest, SingleMessageIsNotAggregated) {
  startParent(/*isAggregator=*/true);
  startChild(/*isAggregator=*/true);
  session_->sendMessageWithSessionInfo(childInfo(), userInfo("C", "S"), 5, 6, Dictionary{{"key", 1}},
                                       nullptr);
  EXPECT_EQ(backend("test").sent.back().method, 5);
  EXPECT_TRUE(own_->takeRemoteCalls().empty());
  EXPECT_TRUE(parents_->takeRemoteCalls().empty());
}

TEST_F(SessionAggregationTest, CategoryAndTypeAreCutTo16Bits) {
  startChild(/*isAggregator=*/true);
  send(message(65536 + 5, -1));
  EXPECT_EQ(described(own_->takeRemoteCalls()), copy(childInfo(), 5, 65535, nothing()));
}

TEST_F(SessionAggregationTest, LostMessageIsAnErrorLineAndTheBackendsGetItAllTheSame) {
  startParent(/*isAggregator=*/true);
  startChild(/*isAggregator=*/false);
  parents_->failRemoteCalls("the connection has ended");
  const size_t before = backend("test").sent.size();
  send(message(5, 6));
  EXPECT_EQ(backend("test").sent.size(), before + 1);
  expectErrors({"sendMessageWithDictionary: Failed to get remote object proxy: the connection has ended"});
}

// Others decide how many messages a client that reads nothing loses; they must not fill the log.
TEST_F(SessionAggregationTest, ClientThatStaysLostIsOneLineUntilItIsReachedAgain) {
  startChild(/*isAggregator=*/true);
  own_->failRemoteCalls("does not read");
  for (int i = 0; i < 5; ++i) send(message(5, 6));
  expectErrors({"sendMessageWithDictionary: Failed to get remote object proxy: does not read"});
  own_->failRemoteCalls("gone");
  send(message(5, 6));
  expectErrors({"sendMessageWithDictionary: Failed to get remote object proxy: gone"});
  own_->failRemoteCalls(std::nullopt);
  send(message(5, 6));
  own_->failRemoteCalls("gone");
  send(message(5, 6));
  expectErrors({"sendMessageWithDictionary: Failed to get remote object proxy: gone"});
  own_->failRemoteCalls(std::nullopt);
}

TEST_F(SessionAggregationTest, ShutdownTellsTheClientOnceAndEndsTheCopies) {
  startChild(/*isAggregator=*/true);
  session_->shutdownSessionAggregation();
  expectDebugLine("shutdownSessionAggregation: Disable aggregation module for session 7");
  EXPECT_EQ(described(own_->takeRemoteCalls()), endSignal());
  EXPECT_FALSE(session_->hasAggregator());
  send(message(5, 6));
  session_->shutdownSessionAggregation();
  session_.reset();
  EXPECT_TRUE(own_->takeRemoteCalls().empty());
}

TEST_F(SessionAggregationTest, ShutdownWithoutAnAggregatorSendsNothing) {
  startChild(/*isAggregator=*/false);
  session_->shutdownSessionAggregation();
  expectDebugLine("shutdownSessionAggregation: Disable aggregation module for session 7");
  EXPECT_TRUE(own_->takeRemoteCalls().empty());
}

TEST_F(SessionAggregationTest, ConfiguringAgainWithTheFlagAggregatesAgain) {
  startChild(/*isAggregator=*/true);
  session_->shutdownSessionAggregation();
  forget();
  session_->setSessionInfo(childInfo(), std::nullopt, {}, true);
  send(message(5, 6));
  EXPECT_EQ(own_->takeRemoteCalls().size(), 1U);
}

TEST_F(SessionAggregationTest, TeardownEndsAggregationAfterTheEndMessageAndBeforeTheHelperGoes) {
  startChild(/*isAggregator=*/true);
  platform_.log.clear();
  session_.reset();
  const auto calls = own_->takeRemoteCalls();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0][3], Value(1));  // the end message
  EXPECT_EQ(described({calls[1]}), endSignal());

  const std::vector<std::string> order = {
      "dealloc: ReportingdSession dealloc: 7",
      "internalSendMessage: Sent internal message (method:0 respCode:1)",
      "flushMessagesWithCompletion: Flushing messages for session 7",
      "shutdownSessionAggregation: Disable aggregation module for session 7",
      "ReportingdSession dealloc: incrementing total sessions count for session 7"};
  std::vector<std::string> seen;
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
    if (std::find(order.begin(), order.end(), line) != order.end()) seen.push_back(line);
  }
  EXPECT_EQ(seen, order);
}

TEST_F(SessionAggregationTest, AggregatorWhoseClientHasGoneLeavesOneErrorLineAtItsEnd) {
  startChild(/*isAggregator=*/true);
  own_->failRemoteCalls("the connection has ended");
  session_.reset();
  expectErrors({"sendMessageWithDictionary: Failed to get remote object proxy: the connection has ended"});
}

}  // namespace
}  // namespace zun
