// One message of a session that is described along with it.

#include "SessionTest.h"

namespace zun {
namespace {

class SingleMessageTest : public SessionTest {
 protected:
  std::string sendOne(const Dictionary& info, const std::optional<Dictionary>& user = userInfo("C", "S"),
                      const std::optional<Dictionary>& payload = std::nullopt, uint16_t category = 5) {
    std::string status;
    int replies = 0;
    session_->sendMessageWithSessionInfo(info, user, category, 6, payload, [&](const std::string& text) {
      status = text;
      ++replies;
    });
    EXPECT_EQ(replies, 1);
    executor_.runAll();
    return status;
  }
};

TEST_F(SingleMessageTest, SessionInfoWithoutClientTypeOrSessionIDIsRefused) {
  const std::string refusal = "Could not retrieve identifiers from sessionInfo";
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  EXPECT_EQ(sendOne({{kZunReportingSessionInfoSessionID, 7}}), refusal);
  EXPECT_EQ(sendOne({{kZunReportingSessionInfoClientType, 5}}), refusal);
  expectErrors({"sendMessageWithSessionInfo: " + refusal, "sendMessageWithSessionInfo: " + refusal});
  EXPECT_TRUE(session_->sessionInfo().empty());
  EXPECT_EQ(agent_.calls(), std::vector<std::string>{});
}

TEST_F(SingleMessageTest, SessionInfoBecomesTheSessionsOwn) {
  EXPECT_EQ(sendOne(sessionInfo(9, inHierarchy("token", 2))), "storebag not available");
  expectDebugLine("sendMessageWithSessionInfo: Sending message with session info for session 9");
  EXPECT_EQ(session_->sessionID(), 9U);
  EXPECT_EQ(session_->hierarchyToken(), "token");
  EXPECT_EQ(session_->hierarchyLevel(), 2U);
  EXPECT_EQ(agent_.calls(), (std::vector<std::string>{"updateCorrelatedSessions", "storebagForSession"}));
}

TEST_F(SingleMessageTest, BackendGetsThePayloadItselfAndFlag0) {
  agent_.storebag = Dictionary{{"test", Dictionary{{"response", "sent"}}}};
  platform_.clock.setTimeOfDay({1'700'000'123, 456'789});
  EXPECT_EQ(sendOne(sessionInfo(9), userInfo("C", "S"), Dictionary{{"key", "value"}}), "finished");
  expectDebugLine("sendOneMessageWithSessionInfo: Sending single message with sessionID 9");

  const auto& sent = backend("test").sent;
  ASSERT_EQ(sent.size(), 1U);  // no start message on this path
  EXPECT_EQ(sent[0].message, (Dictionary{{"key", "value"}}));
  EXPECT_EQ(sent[0].method, 5);
  EXPECT_EQ(sent[0].respCode, 6);
  EXPECT_EQ(sent[0].flag, 0);
  EXPECT_EQ(sent[0].timestamp, (TimeValue{1'700'000'123, 456'789}));
  EXPECT_EQ(backend("test").helper(), agent_.helper("c:s"));
  EXPECT_EQ(backend("test").userInfoDict(), userInfo("C", "S"));
  EXPECT_EQ(world_.messageLogEntries(),
            (std::vector<std::string>{"[test -> sendOneMessageWithSessionInfo] sent"}));
}

// Nobody has started this session, and its user stays the same: its helper is inactive.
TEST_F(SingleMessageTest, EnabledBackendActivatesTheHelperThoughTheNamesAreUnchanged) {
  const std::string activation = "activate: activating connectivity helper for Wirepath with ID <inactive>";
  session_->setSessionInfo(sessionInfo(9), userInfo("C", "S"), {}, false);
  agent_.storebag = Dictionary{{"test", Dictionary{{"state", 3}}}};
  sendOne(sessionInfo(9));
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, activation), 0);
  agent_.storebag = Dictionary{{"test", Dictionary{{"state", 2}}}};
  sendOne(sessionInfo(9));
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, activation), 1);
}

TEST_F(SingleMessageTest, InternalBuildsAddTheSerialNumber) {
  platform_.device.set("ReleaseType", "Internal");
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  const Dictionary payload = {{"key", "value"}, {"SerialNum", "client's"}};
  sendOne(sessionInfo(9), userInfo("C", "S"), payload);
  EXPECT_EQ(backend("test").sent.at(0).message,
            (Dictionary{{"key", "value"}, {"SerialNum", "C39VX0A1JC6K"}}));
  platform_.device.remove("SerialNumber");
  sendOne(sessionInfo(9), userInfo("C", "S"), payload);
  EXPECT_EQ(backend("test").sent.at(0).message["SerialNum"], Value("Unknown"));
  EXPECT_EQ(payload["SerialNum"], Value("client's"));
}

TEST_F(SingleMessageTest, MissingPayloadIsAMissingMessageToBackends) {
  platform_.device.set("ReleaseType", "Internal");
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  EXPECT_EQ(sendOne(sessionInfo(9)), "finished");
  EXPECT_TRUE(backend("test").sent.at(0).isMissing);
  sendOne(sessionInfo(9), userInfo("C", "S"), Dictionary{});
  EXPECT_FALSE(backend("test").sent.at(0).isMissing);
}

TEST_F(SingleMessageTest, WithoutUserInfoNothingIsSent) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  EXPECT_EQ(sendOne(sessionInfo(9), std::nullopt), "finished");
  expectErrors({"sendOneMessageWithSessionInfo: userInfo must be present and valid!!! Aborting method..."});
  EXPECT_TRUE(world_.backends.empty());
}

TEST_F(SingleMessageTest, StorebagWithoutBackendsIsAnErrorLine) {
  agent_.storebag = Dictionary{};
  EXPECT_EQ(sendOne(sessionInfo(9)), "finished");
  expectErrors({"sendOneMessageWithSessionInfo: No backends available to send single message"});
}

TEST_F(SingleMessageTest, EventListsApply) {
  agent_.storebag = Dictionary{{"allows4", Dictionary{{"event_whitelist", Array{4}}}},
                               {"denies5", Dictionary{{"event_blacklist", Array{5}}}},
                               {"open", Dictionary{}}};
  EXPECT_EQ(sendOne(sessionInfo(9)), "finished");
  expectDebugLine(
      "sendOneMessageWithSessionInfo: Dropping event with category 5 as it is not whitelisted for backend "
      "allows4");
  expectDebugLine(
      "sendOneMessageWithSessionInfo: Dropping event with category 5 as it is blacklisted for backend "
      "denies5");
  EXPECT_TRUE(backend("allows4").sent.empty());
  EXPECT_TRUE(backend("denies5").sent.empty());
  EXPECT_EQ(backend("open").sent.size(), 1U);
}

TEST_F(SingleMessageTest, StatesAreUpdatedForTheChangeOfUserAndForTheMessage) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  sendOne(sessionInfo(9));
  EXPECT_EQ(backend("test").stateUpdates, 2);
  sendOne(sessionInfo(9));  // the same user, new backends
  EXPECT_EQ(backend("test").stateUpdates, 1);
}

TEST_F(SingleMessageTest, ReplacesTheBackendsOfTheSession) {
  startWith({{"old", Dictionary{}}});
  agent_.storebag = Dictionary{{"new", Dictionary{}}};
  sendOne(sessionInfo(9));
  EXPECT_EQ(fetchStates(userInfo("C", "S")), (std::vector<std::string>{"new"}));
  EXPECT_EQ(backend("old").cleanups, 0);
}

TEST_F(SingleMessageTest, DeviceIdentifierIsReadAgain) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  platform_.device.set("UniqueDeviceID", "another");
  sendOne(sessionInfo(9));
  EXPECT_EQ(backend("test").udid(), "another");
}

}  // namespace
}  // namespace zun
