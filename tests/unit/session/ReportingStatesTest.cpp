// Backends made from a storebag, their states, and what hierarchies do to them.

#include "SessionTest.h"

namespace zun {
namespace {

class BackendCreationTest : public SessionTest {};

TEST_F(BackendCreationTest, BackendsAreToldWhomTheyReportFor) {
  platform_.clock.setTimeOfDay({1'700'000'000, 250'000});
  startWith({{"test", Dictionary{}}}, sessionInfo(7, {{kZunReportingSessionInfoClientVersion, 65536 + 9},
                                                      {kZunReportingSessionInfoBatchEvent, true}}));
  const TestBackend& test = backend("test");
  expectDebugLine("createBackendsWithStorebag: Creating backends for session 7");
  EXPECT_EQ(test.name(), "test");
  EXPECT_EQ(test.factoryClientType, 5);
  EXPECT_EQ(test.sessionID(), 7U);
  EXPECT_EQ(test.compType(), 5);
  EXPECT_EQ(test.clientVersion(), 9);
  EXPECT_EQ(test.udid(), "00008030-001C2D223A82802E");
  EXPECT_EQ(test.productVersion(), Value("12.11"));
  EXPECT_EQ(test.buildVersion(), Value("21A329"));
  EXPECT_EQ(test.hardwareType(), Value("Pallax12,3"));
  EXPECT_EQ(test.productFamily(), Value("Test Pallax"));
  EXPECT_FALSE(test.isInternal());
  EXPECT_TRUE(test.requireUserInfo());
  EXPECT_TRUE(test.batchEvents());
  EXPECT_EQ(test.userInfoDict(), userInfo("Client", "Service"));
  EXPECT_EQ(test.selfVersion(), (std::vector<int>{3, 2, 1}));
  EXPECT_EQ(test.startTimeStamp(), 1'700'000'000.25);
  EXPECT_EQ(test.combinedID(), session_->sessionIDString());
  EXPECT_EQ(test.helper(), agent_.helper("client:service"));
}

TEST_F(BackendCreationTest, BackendsOfAnInternalBuildAreToldSo) {
  platform_.device.set("ReleaseType", "Internal");
  startWith({{"test", Dictionary{}}});
  EXPECT_TRUE(backend("test").isInternal());
}

TEST_F(BackendCreationTest, AbsentKeysRequireUserInfoAndDoNotBatch) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  session_->setSessionInfo({{kZunReportingSessionInfoSessionID, 7}}, std::nullopt, {}, false);
  platform_.bundle.bundleVersion = std::nullopt;
  start();
  EXPECT_TRUE(backend("test").requireUserInfo());
  EXPECT_FALSE(backend("test").batchEvents());
  EXPECT_EQ(backend("test").userInfoDict(), std::nullopt);
  EXPECT_EQ(backend("test").helper(), nullptr);
  EXPECT_EQ(backend("test").selfVersion(), (std::vector<int>{8, 0, 0}));
}

TEST_F(BackendCreationTest, UserInfoNotRequiredIsHandedOn) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  session_->setSessionInfo(sessionInfo(7, {{kZunReportingSessionInfoRequireUserInfo, false}}), std::nullopt,
                           {}, false);
  start();
  EXPECT_FALSE(backend("test").requireUserInfo());
}

TEST_F(BackendCreationTest, UnavailableDeviceIDIsEmptyAndLongOnesAreCutTo40Characters) {
  platform_.device.remove("UniqueDeviceID");
  session_ = world_.makeSession();
  startWith({{"test", Dictionary{}}});
  EXPECT_EQ(backend("test").udid(), "");

  platform_.device.set("UniqueDeviceID", std::string(100, 'x'));
  session_ = world_.makeSession();
  startWith({{"test", Dictionary{}}});
  EXPECT_EQ(backend("test").udid(), std::string(40, 'x'));
}

TEST_F(BackendCreationTest, UnknownStorebagKeysAreOneFactoryErrorLineEach) {
  const auto states = startWith({{"release_timeout", 120}, {"test", Dictionary{}}, {"other", "text"}});
  EXPECT_EQ(states, (std::vector<std::string>{"test"}));
  expectErrors({"ZunReportingBackend(newBackendWithName): release_timeout",
                "ZunReportingBackend(newBackendWithName): other"});
}

TEST_F(BackendCreationTest, SessionThatWasNeverConfiguredGetsNoBackends) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  EXPECT_EQ(start(), std::nullopt);
  expectErrors({"createBackends: Attempted to create backends with nil session info"});
}

TEST_F(BackendCreationTest, CreationWithoutStorebagIsAnErrorLine) {
  const Dictionary info = sessionInfo(7);
  EXPECT_EQ(createBackends(world_.services, &ZunReportingBackend::newBackendWithName, {.sessionInfo = &info}),
            nullptr);
  expectErrors({"createBackends: Attempted to create backends with nil storebag"});
}

class ReleaseTimeoutTest : public SessionTest {
 protected:
  /// Seconds for which the helper outlives this session after `storebag`.
  std::chrono::nanoseconds timeoutAfter(const Dictionary& storebag) {
    startWith(storebag);
    platform_.log.takeErrors();
    session_.reset();
    executor_.runAll();
    const auto timers = platform_.timers.started();
    return timers.empty() ? std::chrono::nanoseconds(-1) : timers.back().firstFiring;
  }
};

TEST_F(ReleaseTimeoutTest, IsThirtySecondsWithoutAKeyInTheStorebag) {
  EXPECT_EQ(timeoutAfter({{"test", Dictionary{}}}), std::chrono::seconds(30));
}

TEST_F(ReleaseTimeoutTest, IsTheStorebagsValue) {
  EXPECT_EQ(timeoutAfter({{"test", Dictionary{}}, {"release_timeout", 120}}), std::chrono::seconds(120));
}

TEST_F(ReleaseTimeoutTest, IsReadAsAnIntegerWhateverItsType) {
  EXPECT_EQ(timeoutAfter({{"test", Dictionary{}}, {"release_timeout", "45 s"}}), std::chrono::seconds(45));
}

TEST_F(ReleaseTimeoutTest, IsHandedOnToTheHelperOfANewUserThatIsNotActivated) {
  startWith({{"test", Dictionary{{"state", 3}}}, {"release_timeout", 120}});
  platform_.log.takeErrors();
  fetchStates(userInfo("Other", "Service"));
  session_.reset();
  executor_.runAll();
  EXPECT_EQ(platform_.timers.started().back().firstFiring, std::chrono::seconds(120));
}

TEST_F(ReleaseTimeoutTest, GoesBackToThirtyWhenTheNextStorebagHasNone) {
  startWith({{"test", Dictionary{}}, {"release_timeout", 120}});
  EXPECT_EQ(timeoutAfter({{"test", Dictionary{}}}), std::chrono::seconds(30));
}

// States

class ReportingStatesTest : public SessionTest {
 protected:
  void makeParent(const Dictionary& storebag) {
    agent_.storebag = storebag;
    parent_ = world_.makeSession();
    parent_->setSessionInfo(sessionInfo(1, inHierarchy("token", 0)), std::nullopt, {}, false);
    parent_->startConfigWithCompletionHandler(nullptr);
    executor_.runAll();
    parentBackends_ = world_.backends;
  }
  void makeChild(const Dictionary& storebag) {
    startWith(storebag, sessionInfo(7, inHierarchy("token", 1)));
    executor_.runAll();
  }
  void TearDown() override {
    parent_.reset();
    SessionTest::TearDown();
  }

  std::shared_ptr<ReportingdSession> parent_;
  std::map<std::string, std::shared_ptr<TestBackend>> parentBackends_;
};

TEST_F(ReportingStatesTest, EveryBackendsStateIsUpdatedEvenAfterOneWasEnabled) {
  startWith(
      {{"a", Dictionary{{"state", 2}}}, {"b", Dictionary{{"state", 1}}}, {"c", Dictionary{{"state", 2}}}});
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(backend(name).stateUpdates, 1);
}

TEST_F(ReportingStatesTest, NoActiveBackendIsAnEmptyListNotNil) {
  EXPECT_EQ(startWith({{"a", Dictionary{{"state", 0}}}, {"b", Dictionary{{"state", 1}}}}),
            std::vector<std::string>{});
}

TEST_F(ReportingStatesTest, StorebagThatNamesNoBackendIsAnsweredWithAnEmptyListAndNoStorebagWithNone) {
  EXPECT_EQ(startWith({}), std::vector<std::string>{});
  EXPECT_EQ(fetchStates(userInfo("Client", "Service")), std::vector<std::string>{});
  session_ = world_.makeSession();
  agent_.storebag = std::nullopt;
  session_->setSessionInfo(sessionInfo(7), userInfo("Client", "Service"), {}, false);
  EXPECT_EQ(start(), std::nullopt);
  EXPECT_EQ(fetchStates(userInfo("Client", "Service")), std::nullopt);
}

TEST_F(ReportingStatesTest, ChildTakesStateAndThresholdOfItsParentsBackend) {
  makeParent({{"a", Dictionary{{"state", 1}}}});
  parentBackends_.at("a")->setSamplingThreshold(0.25);
  makeChild({{"a", Dictionary{{"state", 2}}}});
  EXPECT_EQ(backend("a").state(), 1);
  EXPECT_EQ(backend("a").samplingThreshold(), Value(0.25));
  expectDebugLine("HTTPSPostBackend(syncReportingStates): a: state and sampling rate updated to 1, 0.25%");
}

TEST_F(ReportingStatesTest, StateTakenFromTheParentActivatesTheChildsHelper) {
  makeParent({{"a", Dictionary{{"state", 2}}}});
  makeChild({{"a", Dictionary{{"state", 0}}}});
  EXPECT_EQ(backend("a").state(), 2);
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug,
                                "activate: activating connectivity helper for Wirepath with ID <inactive>"),
            1);
}

// Whichever comes first, the queued state that tells of itself or the start that set it.
TEST_F(ReportingStatesTest, StartActivatesItsHelperOnce) {
  const auto activations = [this] {
    return platform_.log.count(LogLevel::kDebug,
                               "activate: activating connectivity helper for Wirepath with ID <inactive>");
  };
  startWith({{"test", Dictionary{}}});
  EXPECT_EQ(activations(), 1);
  TestBackend::onStateUpdate = [this] { executor_.runAll(); };
  session_ = world_.makeSession();
  agent_.sharesHelpers = false;
  startWith({{"test", Dictionary{}}});
  TestBackend::onStateUpdate = nullptr;
  EXPECT_EQ(activations(), 2);
}

TEST_F(ReportingStatesTest, EveryStartActivatesAnActiveHelperToo) {
  const auto activations = [this] {
    const auto lines = platform_.log.linesOf(LogLevel::kDebug);
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with("activate: connectivity helper is already active for Wirepath with ID <");
    });
  };
  startWith({{"test", Dictionary{}}});
  executor_.runAll();
  EXPECT_EQ(activations(), 0);
  start();
  executor_.runAll();
  EXPECT_EQ(activations(), 1);
}

TEST_F(ReportingStatesTest, ParentWithoutAThresholdClearsTheChilds) {
  makeParent({{"a", Dictionary{}}});
  makeChild({{"a", Dictionary{}}});
  backend("a").setSamplingThreshold(0.5);
  session_->syncReportingStates();
  EXPECT_EQ(backend("a").samplingThreshold(), Value());
}

TEST_F(ReportingStatesTest, SampledOutChildKeepsItsStateAndThreshold) {
  makeParent({{"a", Dictionary{{"state", 2}}}});
  parentBackends_.at("a")->setSamplingThreshold(0.5);
  makeChild({{"a", Dictionary{{"state", 3}}}});
  EXPECT_EQ(backend("a").state(), 3);
  EXPECT_EQ(backend("a").samplingThreshold(), Value());
}

TEST_F(ReportingStatesTest, ChildsBackendThatTheParentLacksIsDisabled) {
  makeParent({{"a", Dictionary{}}});
  makeChild({{"a", Dictionary{}}, {"b", Dictionary{}}});
  EXPECT_EQ(backend("a").state(), 2);
  EXPECT_EQ(backend("b").state(), 1);
}

TEST_F(ReportingStatesTest, ParentWithoutBackendsDisablesItsChild) {
  parent_ = world_.makeSession();
  parent_->setSessionInfo(sessionInfo(1, inHierarchy("token", 0)), std::nullopt, {}, false);
  makeChild({{"a", Dictionary{}}});
  EXPECT_EQ(backend("a").state(), 1);
}

TEST_F(ReportingStatesTest, ChildWithoutParentKeepsItsStatesAndSaysSo) {
  makeChild({{"a", Dictionary{}}, {"b", Dictionary{{"state", 3}}}});
  EXPECT_EQ(backend("a").state(), 2);
  expectDefaultLine(
      "syncReportingStates: child session 7 (backend a) with hierarchy 1 is missing its parent");
  expectDefaultLine(
      "syncReportingStates: child session 7 (backend b) with hierarchy 1 is missing its parent");
}

TEST_F(ReportingStatesTest, TopSessionHasNoParentToMiss) {
  makeParent({{"a", Dictionary{}}});
  for (const auto& line : platform_.log.linesOf(LogLevel::kDefault))
    EXPECT_EQ(line.find("is missing its parent"), std::string::npos) << line;
}

TEST_F(ReportingStatesTest, CombinedIDOfAChildReachesItsBackends) {
  makeParent({{"a", Dictionary{}}});
  makeChild({{"a", Dictionary{}}});
  const std::string combined = parent_->sessionIDString() + "." + session_->sessionIDString();
  EXPECT_EQ(backend("a").combinedID(), combined);
  EXPECT_EQ(parentBackends_.at("a")->combinedID(), parent_->sessionIDString());
  expectDebugLine("updateCombinedSessionID: Updating combined session ID '" + combined +
                  "' for session 7 backends");
}

}  // namespace
}  // namespace zun
