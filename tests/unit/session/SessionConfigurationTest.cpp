// Creation, configuration, start, user information, display URL.

#include "SessionTest.h"
#include "values/Base64.h"

namespace zun {
namespace {

class SessionConfigurationTest : public SessionTest {};

TEST_F(SessionConfigurationTest, SessionsCreatedBackToBackHaveDifferentIDStringsOf24Characters) {
  const auto other = world_.makeSession();
  EXPECT_NE(session_->sessionIDString(), other->sessionIDString());
  for (const auto& each : {session_, other}) {
    EXPECT_EQ(each->sessionIDString().size(), 24U);
    EXPECT_TRUE(each->sessionIDString().ends_with("=="));
    const auto bytes = base64Decode(each->sessionIDString());
    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes->size(), 16U);
  }
}

TEST_F(SessionConfigurationTest, CreationLogsTheAgentAndTheIDString) {
  expectDebugLine("initWithSessionDelegate: ReportingdSession initWithSessionDelegate:<FakeAgent>");
  expectDebugLine("initWithSessionDelegate: Initialized session with UUID " + session_->sessionIDString());
  EXPECT_EQ(session_->sessionID(), 0U);
  EXPECT_TRUE(session_->sessionInfo().empty());
}

TEST_F(SessionConfigurationTest, ConfigurationKeepsWhatTheClientSays) {
  session_->setSessionInfo(sessionInfo(7), userInfo("Client", "Service"), {"frameworkA"}, true);

  expectDebugLine("setSessionInfo: Configuring session 7");
  EXPECT_EQ(session_->sessionID(), 7U);
  EXPECT_EQ(session_->sessionInfo(), sessionInfo(7));
  EXPECT_EQ(session_->userInfo(), userInfo("Client", "Service"));
  EXPECT_TRUE(session_->hasAggregator());
  EXPECT_EQ(session_->description(), "<ReportingdSession 7 " + session_->sessionIDString() + ">");
  // Correlated before the helper is asked for; the helper is one for POST requests.
  EXPECT_EQ(agent_.calls(), (std::vector<std::string>{"updateCorrelatedSessions",
                                                      "copySharedConnectivityHelper client:service mode 4"}));
}

TEST_F(SessionConfigurationTest, SessionNumberIsReadAsUnsigned32Bits) {
  session_->setSessionInfo({{kZunReportingSessionInfoSessionID, -1}}, std::nullopt, {}, false);
  EXPECT_EQ(session_->sessionID(), 4294967295U);
  expectDebugLine("setSessionInfo: Configuring session 4294967295");
}

TEST_F(SessionConfigurationTest, UserInfoThatIsNotRequiredIsAnErrorLineAndKept) {
  session_->setSessionInfo({{kZunReportingSessionInfoSessionID, 7}}, userInfo("a", "b"), {}, false);
  expectErrors({"setSessionInfo: Configure session: user info provided without requiring it"});
  EXPECT_EQ(session_->userInfo(), userInfo("a", "b"));
  EXPECT_NE(agent_.helper("a:b"), nullptr);
}

TEST_F(SessionConfigurationTest, HierarchyTokenThatIsNoDictionaryGivesLevel0AndNoToken) {
  for (const Value& token : {Value("token"), Value(3), Value(Array{"token"})}) {
    session_->setSessionInfo(sessionInfo(7, inHierarchy("token", 2)), std::nullopt, {}, false);
    EXPECT_EQ(session_->hierarchyLevel(), 2U);
    EXPECT_EQ(session_->hierarchyToken(), "token");
    session_->setSessionInfo(sessionInfo(7, {{kZunReportingSessionInfoHierarchyToken, token}}), std::nullopt,
                             {}, false);
    EXPECT_EQ(session_->hierarchyLevel(), 0U);
    EXPECT_EQ(session_->hierarchyToken(), std::nullopt);
  }
}

TEST_F(SessionConfigurationTest, HierarchyValuesOfOtherTypesDegrade) {
  const Dictionary token = {{kZunReportingHierarchyTokenLevel, "3rd"},
                            {kZunReportingHierarchyTokenTokenID, 9}};
  session_->setSessionInfo(sessionInfo(7, {{kZunReportingSessionInfoHierarchyToken, token}}), std::nullopt,
                           {}, false);
  EXPECT_EQ(session_->hierarchyLevel(), 3U);
  EXPECT_EQ(session_->hierarchyToken(), std::nullopt);
}

TEST_F(SessionConfigurationTest, WithoutUserInfoThereIsNoConnectivityHelper) {
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  EXPECT_EQ(agent_.calls(), (std::vector<std::string>{"updateCorrelatedSessions"}));
  EXPECT_EQ(session_->userInfo(), std::nullopt);
}

TEST_F(SessionConfigurationTest, ConfiguringAgainHandsTheOldHelperBackUnderTheOldNames) {
  session_->setSessionInfo(sessionInfo(7), userInfo("Old", "S"), {}, false);
  session_->setSessionInfo(sessionInfo(8), userInfo("New", "S"), {}, false);
  EXPECT_EQ(agent_.calls(),
            (std::vector<std::string>{"updateCorrelatedSessions", "copySharedConnectivityHelper old:s mode 4",
                                      "updateCorrelatedSessions", "releaseSharedConnectivityHelper old:s",
                                      "copySharedConnectivityHelper new:s mode 4"}));
}

// Start

TEST_F(SessionConfigurationTest, WithoutStorebagStartRepliesNilAndChangesNothing) {
  session_->setSessionInfo(sessionInfo(7), userInfo("Client", "Service"), {}, false);
  EXPECT_EQ(start(), std::nullopt);
  expectDebugLine("startConfigWithCompletionHandler: Starting configuration for session 7");
  EXPECT_EQ(agent_.countOfCalls("updateDownstreamSessions"), 0);
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug,
                                      "internalSendMessage: Sent internal message (method:0 respCode:0)"));
  EXPECT_EQ(send(message(1, 2)), std::nullopt);
  expectDebugLine("sendMessageWithDictionary: No backends available to send message");
}

TEST_F(SessionConfigurationTest, StartRepliesWithTheBackendsInState2Or3InStorebagOrder) {
  const auto states = startWith({{"zeta", Dictionary{{"state", 3}}},
                                 {"alpha", Dictionary{{"state", 2}}},
                                 {"off", Dictionary{{"state", 1}}},
                                 {"waiting", Dictionary{{"state", 0}}}});
  EXPECT_EQ(states, (std::vector<std::string>{"zeta", "alpha"}));
  EXPECT_EQ(agent_.countOfCalls("updateDownstreamSessions"), 1);
}

TEST_F(SessionConfigurationTest, StartActivatesTheHelperOnlyWhenABackendBecameEnabled) {
  const std::string activation = "activate: activating connectivity helper for Wirepath with ID <inactive>";
  startWith({{"a", Dictionary{{"state", 3}}}, {"b", Dictionary{{"state", 1}}}});
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug, activation));
  startWith({{"a", Dictionary{{"state", 3}}}, {"b", Dictionary{{"state", 2}}}});
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, activation), 1);
}

// A sampled-out backend that a message promotes: what it posts from now on must leave.
TEST_F(SessionConfigurationTest, BackendThatIsEnabledAfterTheStartActivatesTheHelperWithItsTimeout) {
  startWith({{"a", Dictionary{{"state", 3}}}, {"b", Dictionary{{"state", 1}}}, {"release_timeout", 120}});
  platform_.log.takeErrors();
  const auto activations = [this] {
    executor_.runAll();
    return platform_.log.count(LogLevel::kDebug,
                               "activate: activating connectivity helper for Wirepath with ID <inactive>");
  };
  backend("b").setState(3);
  EXPECT_EQ(activations(), 0);
  backend("a").setState(2);
  EXPECT_EQ(activations(), 1);
  backend("b").setState(2);  // the helper is active already
  EXPECT_EQ(activations(), 1);
  session_.reset();
  executor_.runAll();
  EXPECT_EQ(platform_.timers.started().back().firstFiring, std::chrono::seconds(120));
}

TEST_F(SessionConfigurationTest, StartMessageOutsideInternalBuildsHoldsExactlyTimeSettingAndLocale) {
  startWith({{"test", Dictionary{}}});
  const auto& sent = backend("test").sent;
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].method, 0);
  EXPECT_EQ(sent[0].respCode, 0);
  EXPECT_EQ(sent[0].flag, 0);
  EXPECT_EQ(sent[0].message,
            (Dictionary{{"ClientData", Dictionary{{"AutomaticTimeSet", true}, {"Locale", "DE"}}}}));
  expectDebugLine("internalSendMessage: Sent internal message (method:0 respCode:0)");
}

TEST_F(SessionConfigurationTest, StartMessageFollowsTheTimeZonePreference) {
  platform_.defaults.setObject("com.vantix.timed", "TMAutomaticTimeZoneEnabled", false);
  platform_.locale.region = std::nullopt;
  startWith({{"test", Dictionary{}}});
  EXPECT_EQ(backend("test").sent.at(0).message["ClientData"],
            Value(Dictionary{{"AutomaticTimeSet", false}, {"Locale", "Unknown"}}));
}

TEST_F(SessionConfigurationTest, StartMessageOfAnInternalBuildDescribesTheDevice) {
  platform_.device.set("ReleaseType", "Internal");
  startWith({{"test", Dictionary{}}});
  EXPECT_EQ(backend("test").sent.at(0).message["ClientData"].description(),
            Value(Dictionary{{"SerialNum", "C39VX0A1JC6K"},
                             {"Version", "12.11"},
                             {"Build", "21A329"},
                             {"Hardware", "N841AP"},
                             {"Product", "Test Pallax"},
                             {"ReportVers", "3.2.1"},
                             {"Locale", "DE"},
                             {"AutomaticTimeSet", true}})
                .description());
}

TEST_F(SessionConfigurationTest, MissingDevicePropertiesAreUnknownInTheStartMessage) {
  platform_.device.set("ReleaseType", "Internal");
  for (const char* key : {"ProductVersion", "BuildVersion", "DeviceName", "SerialNumber", "HWModelStr"})
    platform_.device.remove(key);
  platform_.locale.region = std::nullopt;
  platform_.bundle.bundleVersion = std::nullopt;
  startWith({{"test", Dictionary{}}});
  EXPECT_EQ(backend("test").sent.at(0).message["ClientData"], Value(Dictionary{{"SerialNum", "Unknown"},
                                                                               {"Version", "Unknown"},
                                                                               {"Build", "Unknown"},
                                                                               {"Hardware", "Unknown"},
                                                                               {"Product", "Unknown"},
                                                                               {"ReportVers", "8.0"},
                                                                               {"Locale", "Unknown"},
                                                                               {"AutomaticTimeSet", true}}));
}

TEST_F(SessionConfigurationTest, EachStartRebuildsTheBackendsFromTheStorebagOfThatMoment) {
  startWith({{"one", Dictionary{}}});
  const auto first = world_.backends.at("one");
  agent_.storebag = Dictionary{{"two", Dictionary{}}};
  EXPECT_EQ(start(), (std::vector<std::string>{"two"}));
  EXPECT_EQ(first->cleanups, 0);
  send(message(1, 2));
  EXPECT_EQ(first->sent.size(), 1U);  // its start message
  EXPECT_EQ(backend("two").sent.size(), 2U);
}

// User information

TEST_F(SessionConfigurationTest, SameNamesUpdateTheBackendsButDoNotReevaluateStates) {
  startWith({{"test", Dictionary{}}});
  Dictionary again = userInfo("Client", "Service");
  again.set("more", 1);
  EXPECT_EQ(fetchStates(again), (std::vector<std::string>{"test"}));

  expectDebugLine("fetchStatesWithUserInfo: Fetching states for session 7");
  EXPECT_EQ(backend("test").userInfoDict(), again);
  EXPECT_EQ(backend("test").stateUpdates, 1);
  EXPECT_EQ(agent_.countOfCalls("updateDownstreamSessions"), 1);
  EXPECT_FALSE(
      platform_.log.contains(LogLevel::kDebug, "receivedUserInfo: Received new user info for session 7"));
}

// Where the agent's table of helpers is full, every request for one gives a fresh one.
TEST_F(SessionConfigurationTest, HelperThatReplacesAnotherIsActivatedWhileABackendIsEnabled) {
  const std::string activation = "activate: activating connectivity helper for Wirepath with ID <inactive>";
  agent_.sharesHelpers = false;
  startWith({{"out", Dictionary{{"state", 3}}}});
  fetchStates(userInfo("Client", "Service"));
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, activation), 0);
  startWith({{"out", Dictionary{{"state", 3}}}, {"on", Dictionary{{"state", 2}}}});
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, activation), 1);
  fetchStates(userInfo("Client", "Service"));
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, activation), 2);
  EXPECT_EQ(backend("on").stateUpdates, 1);
  EXPECT_EQ(backend("on").helper(), session_->connectivityHelper());
}

TEST_F(SessionConfigurationTest, ChangedClientOrServiceNameReevaluatesStates) {
  startWith({{"test", Dictionary{}}});
  fetchStates(userInfo("Other", "Service"));
  EXPECT_EQ(backend("test").stateUpdates, 2);
  fetchStates(userInfo("Other", "Elsewhere"));
  EXPECT_EQ(backend("test").stateUpdates, 3);
  EXPECT_EQ(agent_.countOfCalls("updateDownstreamSessions"), 3);
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, "receivedUserInfo: Received new user info for session 7"),
            2);
}

TEST_F(SessionConfigurationTest, NamesCompareByLetterCase) {
  startWith({{"test", Dictionary{}}});
  fetchStates(userInfo("client", "Service"));
  EXPECT_EQ(backend("test").stateUpdates, 2);
}

TEST_F(SessionConfigurationTest, MissingNamesNeverEqualEachOther) {
  startWith({{"test", Dictionary{}}});
  const Dictionary nameless = {{kZunReportingUserInfoClientName, "Client"}};
  fetchStates(nameless);
  fetchStates(nameless);
  EXPECT_EQ(backend("test").stateUpdates, 3);
}

TEST_F(SessionConfigurationTest, NilReplacementOfRequiredUserInfoIsIgnored) {
  startWith({{"test", Dictionary{}}});
  agent_.forgetCalls();
  EXPECT_EQ(fetchStates(std::nullopt), (std::vector<std::string>{"test"}));
  EXPECT_EQ(session_->userInfo(), userInfo("Client", "Service"));
  EXPECT_EQ(agent_.calls(), std::vector<std::string>{});
}

TEST_F(SessionConfigurationTest, NilReplacementOfUserInfoNotRequiredIsAChange) {
  startWith({{"test", Dictionary{}}}, sessionInfo(7, {{kZunReportingSessionInfoRequireUserInfo, false}}));
  expectErrors({"setSessionInfo: Configure session: user info provided without requiring it"});
  fetchStates(std::nullopt);
  EXPECT_EQ(session_->userInfo(), std::nullopt);
  EXPECT_EQ(backend("test").userInfoDict(), std::nullopt);
  EXPECT_EQ(backend("test").stateUpdates, 2);
  expectDebugLine("receivedUserInfo: Received new user info for session 7");
}

TEST_F(SessionConfigurationTest, UserInfoMayBeTakenBackWhereTheSessionInfoDoesNotSayThatItIsRequired) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  session_->setSessionInfo({{kZunReportingSessionInfoSessionID, 7}}, userInfo("Client", "Service"), {},
                           false);
  expectErrors({"setSessionInfo: Configure session: user info provided without requiring it"});
  start();
  fetchStates(std::nullopt);
  EXPECT_EQ(session_->userInfo(), std::nullopt);
  EXPECT_EQ(session_->connectivityHelper(), nullptr);
}

TEST_F(SessionConfigurationTest, NilUserInfoForASessionWithNoneChangesNothing) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  start();
  agent_.forgetCalls();
  fetchStates(std::nullopt);
  EXPECT_EQ(agent_.calls(), std::vector<std::string>{});
  EXPECT_EQ(backend("test").stateUpdates, 1);
}

TEST_F(SessionConfigurationTest, FirstUserInfoIsAChangeAndGivesTheBackendsTheHelper) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  start();
  EXPECT_EQ(backend("test").helper(), nullptr);

  fetchStates(userInfo("Client", "Service"));
  EXPECT_EQ(backend("test").stateUpdates, 2);
  EXPECT_EQ(backend("test").userInfoDict(), userInfo("Client", "Service"));
  ASSERT_NE(agent_.helper("client:service"), nullptr);
  EXPECT_EQ(backend("test").helper(), agent_.helper("client:service"));
  expectDebugLine("activate: activating connectivity helper for Wirepath with ID <inactive>");
}

TEST_F(SessionConfigurationTest, StatesOfASessionThatNeverStartedAreNil) {
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  EXPECT_EQ(fetchStates(userInfo("Client", "Service")), std::nullopt);
}

// Display URL

class DisplayURLTest : public SessionTest {
 protected:
  std::string displayURL() {
    std::string url;
    session_->fetchDisplayURL([&url](const std::string& text) { url = text; });
    return url;
  }
  static Dictionary showing(const std::string& url) { return {{"display_url", url}}; }
};

TEST_F(DisplayURLTest, WithoutBackendsItIsNotAvailable) {
  EXPECT_EQ(displayURL(), "URL not available");
  expectDebugLine("fetchDisplayURL: Fetching display URL for session 0");
}

TEST_F(DisplayURLTest, FirstHTTPPostBackendWithAURLWins) {
  startWith({{"dashboard", showing("d")},
             {"post2", showing("2")},
             {"httpPost", Dictionary{}},
             {"my_httpPost_b", showing("b")},
             {"httpPostC", showing("c")}});
  EXPECT_EQ(displayURL(), "b");
}

TEST_F(DisplayURLTest, Post2ComesBeforeTheDashboard) {
  startWith({{"dashboard", showing("d")}, {"post2", showing("2")}, {"httpPost", Dictionary{}}});
  EXPECT_EQ(displayURL(), "2");
}

TEST_F(DisplayURLTest, DashboardComesLast) {
  startWith({{"dashboard", showing("d")}, {"post2", Dictionary{}}});
  EXPECT_EQ(displayURL(), "d");
}

TEST_F(DisplayURLTest, OtherBackendsHaveNoSay) {
  startWith({{"qrs", showing("q")}, {"kodo", showing("k")}, {"dashboard", Dictionary{}}});
  EXPECT_EQ(displayURL(), "URL not available");
}

}  // namespace
}  // namespace zun
