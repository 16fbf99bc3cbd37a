// One message: checks, blob, event lists, choice of the answer. Shared data, digest key.

#include "SessionTest.h"

namespace zun {
namespace {

class MessageDispatchTest : public SessionTest {
 protected:
  static Dictionary answering(const std::string& response) { return {{"response", response}}; }
};

TEST_F(MessageDispatchTest, WithoutBackendsAMessageIsRefused) {
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  EXPECT_EQ(send(message(1, 2)), std::nullopt);
  expectDebugLine("sendMessageWithDictionary: Sending message for session 7");
  expectDebugLine("sendMessageWithDictionary: No backends available to send message");
}

TEST_F(MessageDispatchTest, StorebagWithoutBackendsIsAsGoodAsNone) {
  startWith({});
  EXPECT_EQ(send(message(1, 2)), std::nullopt);
  expectDebugLine("sendMessageWithDictionary: No backends available to send message");
}

TEST_F(MessageDispatchTest, CategoryIsAskedForBeforeType) {
  startWith({{"httpPost", answering("text")}});
  EXPECT_EQ(send({}), std::nullopt);
  expectDebugLine("sendMessageWithDictionary: Missing mandatory parameter 'category'");
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug,
                                      "sendMessageWithDictionary: Missing mandatory parameter 'type'"));
  EXPECT_EQ(backend("httpPost").sent.size(), 1U);  // the start message
}

TEST_F(MessageDispatchTest, MessageWithoutTypeIsRefused) {
  startWith({{"httpPost", answering("text")}});
  EXPECT_EQ(send({{kZunReportingMessageParametersCategory, 5}}), std::nullopt);
  expectDebugLine("sendMessageWithDictionary: Missing mandatory parameter 'type'");
  EXPECT_EQ(backend("httpPost").sent.size(), 1U);
}

TEST_F(MessageDispatchTest, CategoryAndTypeKeepTheirLow16Bits) {
  startWith({{"test", Dictionary{}}});
  send(message(65536 + 12, -1));
  send(message(0, 0, {{kZunReportingMessageParametersCategory, "34"}}));
  const auto& sent = backend("test").sent;
  EXPECT_EQ(sent.at(1).method, 12);
  EXPECT_EQ(sent.at(1).respCode, 65535);
  EXPECT_EQ(sent.at(2).method, 34);
}

TEST_F(MessageDispatchTest, FlagDefaultsTo0AndIsHandedOn) {
  startWith({{"test", Dictionary{}}});
  send(message(1, 2));
  send(message(1, 2, {{kZunReportingMessageParametersFlag, 3}}));
  EXPECT_EQ(backend("test").sent.at(1).flag, 0);
  EXPECT_EQ(backend("test").sent.at(2).flag, 3);
}

TEST_F(MessageDispatchTest, BackendsGetOneTimestampAndCountTheirOwnEvents) {
  startWith({{"a", Dictionary{}}, {"b", Dictionary{}}});
  platform_.clock.setTimeOfDay({1'700'000'123, 456'789});
  send(message(1, 2));
  for (const char* name : {"a", "b"}) {
    EXPECT_EQ(backend(name).sent.at(1).timestamp, (TimeValue{1'700'000'123, 456'789}));
    EXPECT_EQ(backend(name).sent.at(1).eventID, 2);
  }
}

TEST_F(MessageDispatchTest, BlobHoldsThePayloadOnlyWhenTheMessageHasOne) {
  startWith({{"test", Dictionary{}}});
  send(message(1, 2));
  send(message(1, 2, withPayload({{"key", "value"}})));
  send(message(1, 2, withPayload({})));
  send(message(1, 2, {{kZunReportingMessageParametersPayload, "no dictionary"}}));
  const auto& sent = backend("test").sent;
  EXPECT_EQ(sent.at(1).message, Dictionary{});
  EXPECT_EQ(sent.at(2).message, (Dictionary{{"ClientData", Dictionary{{"key", "value"}}}}));
  EXPECT_EQ(sent.at(3).message, (Dictionary{{"ClientData", Dictionary{}}}));
  EXPECT_EQ(sent.at(4).message, Dictionary{});
}

TEST_F(MessageDispatchTest, BlobHoldsTheSharedDataOfTheMoment) {
  startWith({{"test", Dictionary{}}}, sessionInfo(7, inHierarchy("token", 0)));
  session_->updateSharedDataWithDictionary({{"shared", 1}});
  send(message(1, 2, withPayload({{"key", "value"}})));
  session_->updateSharedDataWithDictionary({{"shared", 2}, {"more", true}});
  const auto& sent = backend("test").sent;
  EXPECT_EQ(sent.at(0).message["SharedData"], Value());  // nothing was shared at the start
  EXPECT_EQ(sent.at(1).message, (Dictionary{{"ClientData", Dictionary{{"key", "value"}}},
                                            {"SharedData", Dictionary{{"shared", 1}}}}));
}

// Event lists

TEST_F(MessageDispatchTest, CategoryOutsideABackendsAllowListIsDroppedForThatBackend) {
  startWith({{"httpPostA", Dictionary{{"event_whitelist", Array{0, 4}}, {"response", "a"}}},
             {"httpPostB", answering("b")}});
  EXPECT_EQ(send(message(5, 1)), "b");
  expectDebugLine(
      "sendMessageWithDictionary: Dropping event with category 5 as it is not whitelisted for backend "
      "httpPostA");
  EXPECT_EQ(backend("httpPostA").sent.size(), 1U);
  EXPECT_EQ(backend("httpPostB").sent.size(), 2U);
}

TEST_F(MessageDispatchTest, CategoryOnABackendsDenyListIsDroppedForThatBackend) {
  startWith({{"httpPost", Dictionary{{"event_blacklist", Array{5}}, {"response", "a"}}}});
  EXPECT_EQ(send(message(5, 1)), std::nullopt);
  expectDebugLine(
      "sendMessageWithDictionary: Dropping event with category 5 as it is blacklisted for backend httpPost");
  EXPECT_EQ(send(message(4, 1)), "a");
}

TEST_F(MessageDispatchTest, AllowListIsAskedBeforeTheDenyList) {
  startWith({{"test", Dictionary{{"event_whitelist", Array{4}}, {"event_blacklist", Array{5}}}}});
  send(message(5, 1));
  expectDebugLine(
      "sendMessageWithDictionary: Dropping event with category 5 as it is not whitelisted for backend test");
  EXPECT_FALSE(platform_.log.contains(
      LogLevel::kDebug,
      "sendMessageWithDictionary: Dropping event with category 5 as it is blacklisted for backend test"));
}

TEST_F(MessageDispatchTest, DroppedEventsDoNotCountForTheBackend) {
  startWith({{"test", Dictionary{{"event_blacklist", Array{5}}}}});
  send(message(5, 1));
  send(message(6, 1));
  EXPECT_EQ(backend("test").sent.at(1).eventID, 2);
}

// The answer

TEST_F(MessageDispatchTest, HTTPPostResponseWinsOverTheDashboardInWhateverOrder) {
  startWith({{"dashboard", answering("d")}, {"httpPost", answering("h")}});
  EXPECT_EQ(send(message(1, 2)), "h");
  startWith({{"httpPost", answering("h")}, {"dashboard", answering("d")}});
  EXPECT_EQ(send(message(1, 2)), "h");
}

TEST_F(MessageDispatchTest, DashboardResponseIsReturnedWhereItIsTheOnlyOne) {
  startWith({{"httpPost", Dictionary{}}, {"dashboard", answering("d")}, {"kodo", answering("k")}});
  EXPECT_EQ(send(message(1, 2)), "d");
}

TEST_F(MessageDispatchTest, LastHTTPPostOrPost2ResponseWins) {
  startWith({{"httpPost", answering("1")}, {"post2", answering("2")}, {"xhttpPosty", Dictionary{}}});
  EXPECT_EQ(send(message(1, 2)), "2");
  startWith({{"post2", answering("2")}, {"httpPostLast", answering("3")}});
  EXPECT_EQ(send(message(1, 2)), "3");
}

TEST_F(MessageDispatchTest, ResponsesOfOtherBackendsAreNeverReturnedButLogged) {
  startWith({{"qrs", answering("q")}, {"HTTPPOST", answering("upper")}});
  EXPECT_EQ(send(message(1, 2)), std::nullopt);
  EXPECT_EQ(world_.messageLogEntries(),
            (std::vector<std::string>{
                "[qrs -> sendMessageWithDictionary] q", "[HTTPPOST -> sendMessageWithDictionary] upper",
                "[qrs -> sendMessageWithDictionary] q", "[HTTPPOST -> sendMessageWithDictionary] upper"}));
}

TEST_F(MessageDispatchTest, MessageLogIsLeftAloneWithoutAResponse) {
  startWith({{"httpPost", Dictionary{}}});
  send(message(1, 2));
  EXPECT_EQ(world_.messageLogEntries(), std::vector<std::string>{});
}

// Shared data

TEST_F(MessageDispatchTest, NilValueRemovesASharedKey) {
  session_->setSessionInfo(sessionInfo(7, inHierarchy("token", 0)), std::nullopt, {}, false);
  session_->updateSharedDataWithDictionary({{"a", 1}, {"b", 2}});
  session_->updateSharedDataForKey("c", Array{3});
  EXPECT_EQ(agent_.sharedData().at("token"), (Dictionary{{"a", 1}, {"b", 2}, {"c", Array{3}}}));
  session_->updateSharedDataForKey("a", Value());
  EXPECT_EQ(agent_.countOfCalls("removeObjectFromSharedDataForSession a"), 1);
  EXPECT_EQ(agent_.sharedData().at("token"), (Dictionary{{"b", 2}, {"c", Array{3}}}));
}

// Digest key

TEST_F(MessageDispatchTest, DigestKeyReachesOnlyABackendNamedExactlyQRS) {
  startWith({{"qrs", Dictionary{}}, {"qrs2", Dictionary{}}, {"httpPost", Dictionary{}}});
  session_->setDigestKey(std::string("k\0y", 3), 4);
  EXPECT_EQ(backend("qrs").digestKey(), std::string("k\0y", 3));
  EXPECT_EQ(backend("qrs").digestAlgorithm(), 4);
  for (const char* name : {"qrs2", "httpPost"}) {
    EXPECT_EQ(backend(name).digestKey(), std::nullopt);
    EXPECT_EQ(backend(name).digestAlgorithm(), 0);
  }
}

TEST_F(MessageDispatchTest, NewUserInfoBringsTheDigestKeyWithAlgorithm0) {
  startWith({{"qrs", Dictionary{}}, {"qrs2", Dictionary{}}});
  session_->setDigestKey("key", 4);
  fetchStates(userInfo("Client", "Service"));
  EXPECT_EQ(backend("qrs").digestKey(), "key");
  EXPECT_EQ(backend("qrs").digestAlgorithm(), 0);
  EXPECT_EQ(backend("qrs2").digestKey(), std::nullopt);
}

TEST_F(MessageDispatchTest, DigestKeyGivenBeforeTheStartWaitsForTheNextUserInfo) {
  session_->setDigestKey("key", 4);
  startWith({{"qrs", Dictionary{}}});
  EXPECT_EQ(backend("qrs").digestKey(), std::nullopt);
  fetchStates(userInfo("Client", "Service"));
  EXPECT_EQ(backend("qrs").digestKey(), "key");
}

}  // namespace
}  // namespace zun
