#include "daemon/ReportingdAgent.h"

#include <gtest/gtest.h>

#include <thread>

#include "session/ClientSessionReplyInterface.h"
#include "support/FakeConnection.h"
#include "support/TestPlatform.h"
#include "zunreporting/Keys.h"

namespace zun {
namespace {

using namespace zunreporting;

/// A storebag server that has nothing.
class EmptyFetcher final : public StorebagFetcher {
 public:
  StorebagFetchOutcome fetchStorebagForEnvironmentAndClientType(int32_t) override { return {}; }
  void outcomeNoted(std::string_view /*name*/, const StorebagFetchOutcome& /*outcome*/) override {}
  void cancelFetches() override {}
  std::optional<Date> modificationDateOfStorebagFile(std::string_view) const override { return std::nullopt; }
};

class ReportingdAgentTest : public PlatformTest {
 protected:
  std::shared_ptr<FakeConnection> connect(bool isEntitled = true) {
    auto connection = std::make_shared<FakeConnection>(
        std::map<std::string, bool>{{"com.vantix.private.zunreportingd", isEntitled}});
    EXPECT_EQ(agent_->shouldAcceptNewConnection(connection), isEntitled);
    return connection;
  }

  /// A session of its own, in the place of a client's call.
  std::shared_ptr<ReportingdSession> makeSession(uint32_t number, const std::string& token, int level) {
    const auto connection = std::make_shared<FakeConnection>(std::map<std::string, bool>{});
    auto session = agent_->createReportingSessionWithDelegate(agent_, connection);
    configure(*session, number, token, level);
    return session;
  }
  void configure(ReportingdSession& session, uint32_t number, const std::string& token, int level) {
    Dictionary info{{kZunReportingSessionInfoSessionID, number}};
    if (!token.empty()) {
      info.set(kZunReportingSessionInfoHierarchyToken, Dictionary{{kZunReportingHierarchyTokenTokenID, token},
                                                                  {kZunReportingHierarchyTokenLevel, level}});
    }
    session.setSessionInfo(info, std::nullopt, {}, false);
  }
  int countDefault(const std::string& line) { return platform_.log.count(LogLevel::kDefault, line); }

  DeviceIdentity identity_{platform_.services};
  MessageLog messageLog_{platform_.services};
  ReportingServices services_{platform_.services, identity_, messageLog_};
  EmptyFetcher fetcher_;
  std::shared_ptr<ReportingdAgent> agent_ = ReportingdAgent::create(services_, fetcher_);
};

TEST_F(ReportingdAgentTest, PeerWithoutTheEntitlementIsRefusedAndNothingIsConfigured) {
  const auto connection = std::make_shared<FakeConnection>(std::map<std::string, bool>{});
  EXPECT_FALSE(agent_->shouldAcceptNewConnection(connection));
  EXPECT_EQ(agent_->sessionCount(), 0u);
  EXPECT_EQ(connection->exportedInterface, nullptr);
  EXPECT_EQ(connection->exportedObject, nullptr);
  EXPECT_FALSE(connection->isResumed);
  EXPECT_EQ(platform_.transactions.begins, 0);
  expectDebugLine(
      "listener: new Quorx connection test peer does not have required zunreporting entitlement. Closing "
      "connection...");
}

TEST_F(ReportingdAgentTest, PeerWhoseEntitlementIsFalseIsRefused) {
  connect(/*isEntitled=*/false);
  EXPECT_EQ(agent_->sessionCount(), 0u);
}

TEST_F(ReportingdAgentTest, AcceptedConnectionIsSetUpAndResumed) {
  const auto connection = connect();
  EXPECT_EQ(agent_->sessionCount(), 1u);
  EXPECT_EQ(connection->exportedInterface, &clientSessionInterface());
  EXPECT_EQ(connection->remoteInterface, &clientSessionReplyInterface());
  EXPECT_NE(connection->exportedObject, nullptr);
  EXPECT_TRUE(connection->isResumed);
  expectDebugLine(
      "listener: Accepting new Quorx connection test peer as it has proper entitlement, 0(0) connections.");
  connection->invalidate();
}

// What comes once it is resumed must find all of it.
TEST_F(ReportingdAgentTest, ConnectionIsResumedLast) {
  const auto connection = connect();
  EXPECT_EQ(connection->setUp,
            (std::vector<std::string>{"exported interface", "remote interface", "exported object",
                                      "interruption handler", "invalidation handler", "resume"}));
  connection->invalidate();
}

TEST_F(ReportingdAgentTest, FirstConnectionOpensTheTransactionAndTheSecondOnlyRaisesTheCount) {
  const auto first = connect();
  const auto second = connect();
  EXPECT_EQ(platform_.transactions.begins, 1);
  EXPECT_EQ(countDefault("createReportingSessionWithDelegate: retained Quorx Transaction. Ref count is 1"),
            1);
  EXPECT_EQ(countDefault("createReportingSessionWithDelegate: retained Quorx Transaction. Ref count is 2"),
            1);
  const std::string started = "createReportingSessionWithDelegate: Quorx transaction started with session ";
  const auto sessions = agent_->copyReportingAgentState().sessions;
  ASSERT_EQ(sessions.size(), 2u);
  expectDebugLine(started + sessions[0]->description());
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug, started + sessions[1]->description()));
  first->invalidate();
  second->invalidate();
}

TEST_F(ReportingdAgentTest, EndOfTheLastConnectionEndsSessionAndTransaction) {
  const auto connection = connect();
  connection->invalidate();
  EXPECT_EQ(agent_->sessionCount(), 0u);
  EXPECT_EQ(platform_.transactions.ends, 1);
  EXPECT_EQ(countDefault("releaseQuorxTransactions: Quorx transaction ref count is 0, decremented by 1"), 1);
  EXPECT_EQ(countDefault("releaseQuorxTransactions: Quorx transaction ended"), 1);
}

TEST_F(ReportingdAgentTest, InterruptionLogsOneLineAndKeepsTheSession) {
  const auto connection = connect();
  const std::string session = agent_->copyReportingAgentState().sessions.at(0)->description();
  platform_.log.clear();
  connection->interrupt();
  ASSERT_EQ(platform_.log.lines().size(), 1u);
  expectDebugLine("listener: Quorx connection to " + session + " was interrupted");
  EXPECT_EQ(agent_->sessionCount(), 1u);
  connection->invalidate();
}

TEST_F(ReportingdAgentTest, InvalidationNamesTheSessionTwice) {
  const auto connection = connect();
  const std::string session = agent_->copyReportingAgentState().sessions.at(0)->description();
  platform_.log.clear();
  connection->invalidate();
  const auto lines = platform_.log.linesOf(LogLevel::kDebug);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "listener: Quorx connection to " + session + " was invalidated");
  EXPECT_EQ(lines[1], "invalidateReportingSession: ReportingdSession " + session + " was invalidated");
}

// Whoever still holds the session may be at work for it: its reference goes with its end.
TEST_F(ReportingdAgentTest, InvalidationDoesNotReleaseTheSessionsReference) {
  auto held = makeSession(1, "", 0);
  agent_->invalidateReportingSession(held);
  EXPECT_EQ(agent_->sessionCount(), 0u);
  EXPECT_EQ(platform_.transactions.ends, 0);
  const std::string released = "releaseQuorxTransactions: Quorx transaction ref count is 0, decremented by 1";
  EXPECT_EQ(countDefault(released), 0);
  held = nullptr;
  EXPECT_EQ(countDefault(released), 1);
  EXPECT_EQ(platform_.transactions.ends, 1);
}

TEST_F(ReportingdAgentTest, ReleaseBeyondTheCountLeavesItNegativeAndTheNextSessionOpensNoTransaction) {
  const auto first = makeSession(1, "", 0);
  const auto second = makeSession(2, "", 0);
  agent_->releaseQuorxTransactions(3);
  EXPECT_EQ(platform_.transactions.ends, 1);
  EXPECT_EQ(countDefault("releaseQuorxTransactions: Quorx transaction ref count is -1, decremented by 3"), 1);

  const auto third = makeSession(3, "", 0);
  EXPECT_EQ(countDefault("createReportingSessionWithDelegate: retained Quorx Transaction. Ref count is 0"),
            1);
  EXPECT_EQ(platform_.transactions.begins, 1);
  for (const auto& session : {first, second, third}) agent_->invalidateReportingSession(session);
}

TEST_F(ReportingdAgentTest, ReleaseWithoutReferencesIsIgnoredWithoutALine) {
  agent_->releaseQuorxTransactions(1);
  EXPECT_TRUE(platform_.log.lines().empty());
  EXPECT_EQ(platform_.transactions.ends, 0);
}

TEST_F(ReportingdAgentTest, StorebagIsThatOfTheSessionsClientTypeAndOfTypeZeroWithoutOne) {
  const auto connection = std::make_shared<FakeConnection>(std::map<std::string, bool>{});
  const auto session = agent_->createReportingSessionWithDelegate(agent_, connection);
  session->setSessionInfo(
      Dictionary{{kZunReportingSessionInfoSessionID, 9}, {kZunReportingSessionInfoClientType, 7}},
      std::nullopt, {}, false);
  EXPECT_FALSE(agent_->storebagForSession(*session));
  expectDebugLine("storebagForSession: Retrieving storebag for session 9 with client type 7");
  EXPECT_FALSE(agent_->storebagVersionForSession(*session));
  session->setSessionInfo(Dictionary{{kZunReportingSessionInfoSessionID, 9}}, std::nullopt, {}, false);
  EXPECT_FALSE(agent_->storebagForSession(*session));
  expectDebugLine("storebagForSession: Retrieving storebag for session 9 with client type 0");
  expectErrors({"fetchAndCacheStorebag: Unable to fetch storebag for client type 7",
                "fetchAndCacheStorebag: clientType 0 is invalid"});
  agent_->invalidateReportingSession(session);
}

TEST_F(ReportingdAgentTest, LastSessionOfATokenLeavesItsListAndSharedDataInPlace) {
  auto session = makeSession(1, "family", 0);
  agent_->updateSharedDataForSession(*session, Dictionary{{"key", "value"}});
  agent_->invalidateReportingSession(session);
  session = nullptr;

  platform_.log.clear();
  const auto connection = connect();
  expectDebugLine(
      "listener: Accepting new Quorx connection test peer as it has proper entitlement, 0(1) connections.");
  const auto later = makeSession(2, "family", 0);
  EXPECT_EQ(agent_->sharedDataForSession(*later), (Dictionary{{"key", "value"}}));
  agent_->invalidateReportingSession(later);
  connection->invalidate();
}

TEST_F(ReportingdAgentTest, StandaloneSessionNeitherStoresNorReadsSharedData) {
  const auto session = makeSession(1, "", 0);
  agent_->updateSharedDataForSession(*session, Dictionary{{"key", "value"}});
  agent_->removeObjectFromSharedDataForSession(*session, "key");
  EXPECT_EQ(agent_->sharedDataForSession(*session), std::nullopt);
  expectDefaultLine(
      "updateCorrelatedSessions: Session 1 has no correlated sessions as it is a standalone session");
  agent_->invalidateReportingSession(session);
}

TEST_F(ReportingdAgentTest, SessionsOfOneTokenShareDataAndTheSecondValueWins) {
  const auto first = makeSession(1, "family", 0);
  const auto second = makeSession(2, "family", 1);
  agent_->updateSharedDataForSession(*first, Dictionary{{"key", 1}, {"other", 5}});
  agent_->updateSharedDataForSession(*second, Dictionary{{"key", 2}});
  EXPECT_EQ(agent_->sharedDataForSession(*first), (Dictionary{{"key", 2}, {"other", 5}}));
  agent_->removeObjectFromSharedDataForSession(*first, "key");
  agent_->removeObjectFromSharedDataForSession(*first, "never there");
  EXPECT_EQ(agent_->sharedDataForSession(*second), (Dictionary{{"other", 5}}));
  agent_->invalidateReportingSession(first);
  agent_->invalidateReportingSession(second);
}

TEST_F(ReportingdAgentTest, SessionsAndTheirTokensAreCountedWithEachConnection) {
  const std::vector<std::shared_ptr<ReportingdSession>> sessions{
      makeSession(1, "family", 0), makeSession(2, "family", 1), makeSession(3, "others", 0)};
  const auto connection = connect();
  expectDebugLine(
      "listener: Accepting new Quorx connection test peer as it has proper entitlement, 3(2) connections.");
  connection->invalidate();
  for (const auto& session : sessions) agent_->invalidateReportingSession(session);
}

// A client that makes up a new token with every call must not fill the daemon's memory.
TEST_F(ReportingdAgentTest, TokensWithoutSessionsAreBounded) {
  const auto session = makeSession(1, "", 0);
  const std::string filler(30'000, 'x');
  for (int i = 0; i < 1000; ++i) configure(*session, 1, filler + std::to_string(i), 0);
  platform_.log.clear();
  const auto connection = connect();
  int tokens = 0;
  for (const auto& line : platform_.log.linesOf(LogLevel::kDebug)) {
    std::sscanf(line.c_str(),
                "listener: Accepting new Quorx connection test peer as it has proper entitlement, 1(%d)",
                &tokens);
  }
  EXPECT_GT(tokens, 10);
  EXPECT_LT(tokens, 600);
  connection->invalidate();
  agent_->invalidateReportingSession(session);
}

TEST_F(ReportingdAgentTest, SharedDataOfOneTokenIsBounded) {
  const auto session = makeSession(1, "family", 0);
  agent_->updateSharedDataForSession(*session, Dictionary{{"kept", "value"}});
  agent_->updateSharedDataForSession(*session, Dictionary{{"huge", std::string(2 << 20, 'x')}});
  EXPECT_EQ(agent_->sharedDataForSession(*session), (Dictionary{{"kept", "value"}}));
  expectErrors(
      {"updateSharedDataForSession: shared data for hierarchyToken family would exceed 1048576 bytes, update "
       "dropped"});
  agent_->invalidateReportingSession(session);
}

TEST_F(ReportingdAgentTest, FirstUpdateThatIsTooLargeLeavesNoSharedData) {
  const auto session = makeSession(1, "family", 0);
  agent_->updateSharedDataForSession(*session, Dictionary{{"huge", std::string(2 << 20, 'x')}});
  EXPECT_EQ(agent_->sharedDataForSession(*session), std::nullopt);
  expectErrors(
      {"updateSharedDataForSession: shared data for hierarchyToken family would exceed 1048576 bytes, update "
       "dropped"});
  agent_->updateSharedDataForSession(*session, Dictionary{{"kept", "value"}});
  EXPECT_EQ(agent_->sharedDataForSession(*session), (Dictionary{{"kept", "value"}}));
  agent_->invalidateReportingSession(session);
}

// Room that was given back can be used again, whether by removal or by a smaller value.
TEST_F(ReportingdAgentTest, SharedDataTakesNewValuesWhereOldOnesWent) {
  const auto session = makeSession(1, "family", 0);
  const std::string large(400'000, 'x');  // counts twice
  for (int round = 0; round < 5; ++round) {
    agent_->updateSharedDataForSession(*session, Dictionary{{"first", large}});
    agent_->updateSharedDataForSession(*session, Dictionary{{"first", "small"}});
    agent_->updateSharedDataForSession(*session, Dictionary{{"second", large}});
    agent_->removeObjectFromSharedDataForSession(*session, "second");
  }
  EXPECT_EQ(agent_->sharedDataForSession(*session), (Dictionary{{"first", "small"}}));
  agent_->invalidateReportingSession(session);
}

// Keys and values so small that they need no memory of their own still fill the table.
TEST_F(ReportingdAgentTest, SharedDataFullOfSmallEntriesCanBeChangedAndEmptied) {
  const auto session = makeSession(1, "family", 0);
  const auto key = [](int number) { return "k" + std::to_string(number); };
  const auto size = [&] { return static_cast<int>(agent_->sharedDataForSession(*session)->size()); };
  int added = 0;
  for (; added < 200'000 && (added == 0 || size() == added); ++added)
    agent_->updateSharedDataForSession(*session, Dictionary{{key(added), added}});
  --added;  // the last one was dropped
  EXPECT_GT(added, 5'000);
  EXPECT_LT(added, 100'000);
  const std::vector<std::string> dropped{
      "updateSharedDataForSession: shared data for hierarchyToken family would exceed 1048576 bytes, update "
      "dropped"};
  expectErrors(dropped);

  agent_->updateSharedDataForSession(*session, Dictionary{{key(7), "new"}});
  EXPECT_EQ((*agent_->sharedDataForSession(*session))[key(7)], Value("new"));
  agent_->removeObjectFromSharedDataForSession(*session, key(0));
  agent_->updateSharedDataForSession(*session, Dictionary{{key(added), added}});
  EXPECT_EQ(size(), added);
  for (int number = 1; number <= added; ++number)
    agent_->removeObjectFromSharedDataForSession(*session, key(number));
  EXPECT_EQ(size(), 0);
  for (int number = 0; number < added; ++number)
    agent_->updateSharedDataForSession(*session, Dictionary{{key(number), number}});
  EXPECT_EQ(size(), added);
  agent_->updateSharedDataForSession(*session, Dictionary{{key(added), added}});
  expectErrors(dropped);
  agent_->invalidateReportingSession(session);
}

TEST_F(ReportingdAgentTest, SessionsComeAndGoOnManyThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int round = 0; round < 25; ++round) {
        const auto connection = connect();
        const auto session = makeSession(static_cast<uint32_t>(i), "family", i);
        agent_->updateSharedDataForSession(*session, Dictionary{{"round", round}});
        agent_->updateDownstreamSessions(*session);
        agent_->invalidateReportingSession(session);
        connection->invalidate();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(agent_->sessionCount(), 0u);
  EXPECT_EQ(platform_.transactions.begins, platform_.transactions.ends);
}

// Connectivity helpers

TEST_F(ReportingdAgentTest, SessionsShareAHelperByTheNamesOfTheirClientAndService) {
  std::vector<std::shared_ptr<ReportingdSession>> sessions;
  const auto helperOf = [&](const Dictionary& userInfo) {
    sessions.push_back(agent_->createReportingSessionWithDelegate(
        agent_, std::make_shared<FakeConnection>(std::map<std::string, bool>{})));
    sessions.back()->setSessionInfo({{kZunReportingSessionInfoRequireUserInfo, true}}, userInfo, {}, false);
    return sessions.back()->connectivityHelper();
  };
  const auto names = [](const char* client, const char* service) {
    return Dictionary{{kZunReportingUserInfoClientName, client}, {kZunReportingUserInfoServiceName, service}};
  };
  const auto first = helperOf(names("Client", "Service"));
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(helperOf(names("cLIENT", "SERVICE")), first);
  EXPECT_NE(helperOf(names("Other", "Service")), first);
  EXPECT_NE(helperOf(names("Client", "Other")), first);
  EXPECT_NE(helperOf({}), first);
  EXPECT_EQ(helperOf({}), helperOf({{"unrelated", "value"}}));
  expectDebugLine(
      "requestSharedConnectivityHelperForReportingSession: Requesting shared connectivity helper for "
      "userInfoKey client:service");
  expectDebugLine(
      "requestSharedConnectivityHelperForReportingSession: Requesting shared connectivity helper for "
      "userInfoKey :");
  for (auto& session : sessions) agent_->invalidateReportingSession(std::move(session));
}

TEST_F(ReportingdAgentTest, ASessionThatEndsReleasesTheHelperOfItsNames) {
  const auto connection = std::make_shared<FakeConnection>(std::map<std::string, bool>{});
  auto session = agent_->createReportingSessionWithDelegate(agent_, connection);
  session->setSessionInfo({{kZunReportingSessionInfoRequireUserInfo, true}},
                          Dictionary{{kZunReportingUserInfoClientName, "C"}}, {}, false);
  agent_->invalidateReportingSession(std::exchange(session, nullptr));
  while (!platform_.workers.activity().isIdle) std::this_thread::yield();
  expectDebugLine(
      "releaseSharedConnectivityHelperForReportingSession: Decrementing usage count of shared connectivity "
      "helper for userInfoKey c:");
}

}  // namespace
}  // namespace zun
