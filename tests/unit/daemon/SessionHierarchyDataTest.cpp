#include <thread>

#include "SessionHierarchyTest.h"

namespace zun {
namespace {

// --- whose client gets the copies ------------------------------------------------

TEST_F(SessionHierarchyTest, TopmostAggregatingAncestorGetsTheMessage) {
  Client top = start(1, "family", 0);
  Client middle = join(2, "family", 1, Aggregates::kYes);
  Client lower = join(3, "family", 2, Aggregates::kYes);
  Client deep = join(4, "family", 3);
  deep->startConfigWithCompletionHandler(nullptr);
  EXPECT_EQ(agent_->getAncestorWithAggregatorForSession(*deep.session), middle.session);
  copies(middle);
  send(deep, 5);
  EXPECT_EQ(copies(middle), Copies{"4:5"});
  EXPECT_TRUE(copies(lower).empty());
  EXPECT_TRUE(copies(top).empty());
  EXPECT_EQ(agent_->getAncestorWithAggregatorForSession(*middle.session), nullptr);
  EXPECT_EQ(agent_->getAncestorWithAggregatorForSession(*top.session), nullptr);
  end(deep, lower, middle, top);
}

TEST_F(SessionHierarchyTest, MissingLevelsAboveDoNotHideAnAggregator) {
  Client top = join(1, "family", 2, Aggregates::kYes);
  Client deep = start(4, "family", 9);
  EXPECT_EQ(copies(top), Copies{"4:0"});
  end(deep, top);
}

TEST_F(SessionHierarchyTest, OfOneLevelOnlyTheFirstToJoinCanBeTheAggregator) {
  Client first = join(1, "family", 0);
  Client second = join(2, "family", 0, Aggregates::kYes);
  Client child = start(3, "family", 1);
  EXPECT_EQ(agent_->getAncestorWithAggregatorForSession(*child.session), nullptr);
  EXPECT_TRUE(copies(second).empty());
  end(first);
  EXPECT_EQ(agent_->getAncestorWithAggregatorForSession(*child.session), second.session);
  send(child, 5);
  EXPECT_EQ(copies(second), Copies{"3:5"});
  end(child, second);
}

TEST_F(SessionHierarchyTest, MessagesFindTheNextAggregatorWhenTheTopmostEnds) {
  Client top = start(1, "family", 0, Aggregates::kYes);
  Client middle = start(2, "family", 1);
  middle->setSessionInfo(info(2, "family", 1), std::nullopt, {}, true);  // after the start: goes on
  Client deep = start(3, "family", 2);
  copies(top);
  end(top);
  // The start of the lowest ended the middle's, too.
  configure(middle, 2, "family", 1, Aggregates::kYes);
  copies(middle);
  send(deep, 5);
  EXPECT_EQ(copies(middle), Copies{"3:5"});
  end(deep, middle);
}

TEST_F(SessionHierarchyTest, OtherTokensDoNotAggregate) {
  Client top = join(1, "others", 0, Aggregates::kYes);
  Client child = start(2, "family", 1);
  send(child, 5);
  EXPECT_TRUE(copies(top).empty());
  end(child, top);
}

TEST_F(SessionHierarchyTest, EndMessageOfASessionThatHasLeftItsListStillFindsItsAncestor) {
  Client top = start(1, "family", 0, Aggregates::kYes);
  Client child = start(2, "family", 1);
  copies(top);
  end(child);
  const auto calls = top.connection->takeRemoteCalls();
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0][2], Value(0));
  EXPECT_EQ(calls[0][3], Value(1));
  end(top);
}

TEST_F(SessionHierarchyTest, SharedDataOfTheTokenComesWithEveryMessage) {
  platform_.defaults.setObject("com.vantix.diagnostics", "DiagnosticSubmissionEnabled", true);
  Client first = connect();
  Dictionary needsNoUser = info(1, "family", 0);
  needsNoUser.set(zunreporting::kZunReportingSessionInfoRequireUserInfo, false);
  first->setSessionInfo(needsNoUser, std::nullopt, {}, false);
  first->startConfigWithCompletionHandler(nullptr);
  Client other = join(2, "family", 1);
  const auto textOfMessage = [&first] {
    std::string text;
    first->sendMessageWithDictionary(
        {{zunreporting::kZunReportingMessageParametersCategory, 5},
         {zunreporting::kZunReportingMessageParametersType, 1},
         {zunreporting::kZunReportingMessageParametersPayload, Dictionary{{"key", 1}}}},
        [&text](const std::optional<std::string>& response) { text = response.value_or("none"); });
    return text;
  };
  EXPECT_EQ(textOfMessage().find("conference"), std::string::npos);
  other->updateSharedDataForKey("conference", "daily");
  EXPECT_NE(textOfMessage().find("\"conference\": \"daily\""), std::string::npos);
  other->updateSharedDataForKey("conference", "weekly");
  EXPECT_NE(textOfMessage().find("\"conference\": \"weekly\""), std::string::npos);
  end(first, other);
  expectErrors({"postJSONMessage: session 1 loses events: the storebag has no post_url for it"});
}

TEST_F(SessionHierarchyTest, SharedDataSurvivesTheSessionsOfItsToken) {
  Client first = start(1, "family", 0);
  first->updateSharedDataWithDictionary({{"conference", "daily"}, {"room", 5}});
  first->updateSharedDataForKey("room", Value());
  EXPECT_EQ(agent_->sharedDataForSession(*first.session), (Dictionary{{"conference", "daily"}}));
  end(first);
  Client later = start(2, "family", 3);
  EXPECT_EQ(agent_->sharedDataForSession(*later.session), (Dictionary{{"conference", "daily"}}));
  Client alone = start(3, "", 0);
  alone->updateSharedDataForKey("room", 1);
  EXPECT_EQ(agent_->sharedDataForSession(*alone.session), std::nullopt);
  end(later, alone);
}

TEST_F(SessionHierarchyTest, TokenHasSharedDataFromTheFirstUpdateOnEvenAnEmptyOne) {
  Client client = join(1, "family", 0);
  EXPECT_EQ(agent_->sharedDataForSession(*client.session), std::nullopt);
  client->updateSharedDataForKey("absent", Value());
  EXPECT_EQ(agent_->sharedDataForSession(*client.session), std::nullopt);
  client->updateSharedDataWithDictionary({});
  EXPECT_EQ(agent_->sharedDataForSession(*client.session), Dictionary());
  client->updateSharedDataForKey("absent", Value());
  EXPECT_EQ(agent_->sharedDataForSession(*client.session), Dictionary());
  end(client);
}

// It stands in the table, and in the line of those that wait to be given up.
TEST_F(SessionHierarchyTest, NameOfATokenWithoutSessionsCountsTwice) {
  const auto visit = [this](int number) {
    Client client = join(1, fmt::format("{:060000}", number), 0);
    end(client);
  };
  for (int number = 0; number < 279; ++number) visit(number);  // all but 3,008 bytes
  expectErrors({"log: lines of more than 16384 bytes are cut, and end with their length"});
  visit(279);
  expectErrors(
      {"updateCorrelatedSessions: hierarchyTokens without sessions keep more than a client's share of "
       "33554432 "
       "bytes, its longest idle are given up"});
}

TEST_F(SessionHierarchyTest, OfTheTokensWithoutSessionsTheLongestIdleIsGivenUpFirst) {
  constexpr int kTokens = 50;  // of 900,000 bytes: more than all idle ones together may keep
  const auto visit = [this](int number) {
    Client client = join(1, "token" + std::to_string(number), 0);
    const bool wasKept = agent_->sharedDataForSession(*client.session).has_value();
    client->updateSharedDataForKey("text", std::string(900'000, 'x'));
    end(client);
    return wasKept;
  };
  for (int number = 0; number < 30; ++number) visit(number);
  EXPECT_TRUE(visit(0));  // idle anew, and now the shortest
  for (int number = 30; number < kTokens; ++number) visit(number);
  EXPECT_TRUE(visit(0));
  EXPECT_TRUE(visit(kTokens - 1));
  const std::string given =
      "updateCorrelatedSessions: hierarchyTokens without sessions keep more than a client's share of "
      "33554432 "
      "bytes, its longest idle are given up";
  expectErrors({given});
  EXPECT_FALSE(visit(1));
  EXPECT_FALSE(visit(2));
  expectErrors({given});
}

// However many tokens it makes, and however often it connects.
TEST_F(SessionHierarchyTest, IdleTokensGiveWayToThoseOfTheSameProgramAlone) {
  const auto visit = [this](const std::string& token, BudgetHolder program) {
    Client client = join(1, token, 0, Aggregates::kNo, program);
    const bool wasKept = agent_->sharedDataForSession(*client.session).has_value();
    client->updateSharedDataForKey("text", std::string(900'000, 'x'));
    end(client);
    return wasKept;
  };
  constexpr BudgetHolder kFlooder{1000, 1};
  constexpr BudgetHolder kNeighbour{1000, 2};
  constexpr BudgetHolder kStranger{1001, 1};
  visit("neighbour's", kNeighbour);
  visit("stranger's", kStranger);
  for (int number = 0; number < 50; ++number) visit(std::to_string(number), kFlooder);
  EXPECT_TRUE(visit("49", kFlooder));
  EXPECT_FALSE(visit("30", kFlooder));
  EXPECT_TRUE(visit("neighbour's", kNeighbour));
  EXPECT_TRUE(visit("stranger's", kStranger));
  visit("late", {1002, 1});
  EXPECT_TRUE(visit("late", {1002, 1}));
  // Once, and once more after there was room for one; others are told nothing.
  EXPECT_EQ(platform_.log.takeErrors().size(), 2U);
}

// --- the agent's state -----------------------------------------------------------

TEST_F(SessionHierarchyTest, StateHasAllSessionsInTheirOrderAndTheCachedStorebags) {
  Client first = connect();
  Client second = start(2, "family", 0);
  Client third = join(3, "", 0);
  const ReportingAgentState state = agent_->copyReportingAgentState();
  EXPECT_EQ(state.sessions, (std::vector{first.session, second.session, third.session}));
  ASSERT_EQ(state.cachedStorebags.size(), 1U);
  EXPECT_EQ((*state.cachedStorebags["confero"].dictionary())["StorebagVersion"], Value("1.0"));
  end(first, second, third);
}

TEST_F(SessionHierarchyTest, StateHoldsASessionThatWasListedWhileItWasBeingTaken) {
  Client early = connect();
  ReportingAgentState state;
  std::thread taker;
  Client late;
  {
    const RecursiveMutexLock lock(agent_->objectLock());
    taker = std::thread([this, &state] { state = agent_->copyReportingAgentState(); });
    late = connect();
  }
  taker.join();
  // Either it was counted before the lock was free, or after it: the content is the later one.
  EXPECT_EQ(state.sessions, (std::vector{early.session, late.session}));
  state = {};
  end(early, late);
}

TEST_F(SessionHierarchyTest, EndMessageCountsTheSessionsThatAreLeftAndTheEndingOne) {
  Client top = start(1, "family", 0, Aggregates::kYes);
  Client other = start(2, "", 0);
  send(other, 5);
  ASSERT_GT(other->batchedEventsSize(), 0U);
  Client child = start(3, "family", 1);
  const uint64_t bytes = top->batchedEventsSize() + other->batchedEventsSize() + child->batchedEventsSize();
  copies(top);
  end(child);
  const auto calls = top.connection->takeRemoteCalls();
  ASSERT_EQ(calls.size(), 1U);
  const Dictionary payload = *(*calls[0][4].array())[0].dictionary();
  EXPECT_EQ(payload["StorebagVersion"], Value("1.0"));
  EXPECT_EQ(payload["SessionsCount_confero"], Value(3));
  EXPECT_EQ(payload["BatchSize_confero"], Value(bytes));
  EXPECT_EQ(payload["StorebagsCount"], Value(1));
  EXPECT_EQ(payload["CalculatedMemoryUsage"].intValue(),
            static_cast<int64_t>(bytes) + payload["StorebagsSize"].intValue());
  end(top, other);
}

// --- Whose hierarchies -----------------------------------------------------------------

TEST_F(SessionHierarchyTest, ATokenIsClaimedByOneUserAlone) {
  EXPECT_TRUE(agent_->claimHierarchy("T", 1));
  EXPECT_TRUE(agent_->claimHierarchy("T", 1));
  EXPECT_FALSE(agent_->claimHierarchy("T", 2));
  EXPECT_TRUE(agent_->claimHierarchy("U", 2));
}

// A claim is to be followed by a session; where none follows, it is kept as what ended ones leave.
TEST_F(SessionHierarchyTest, ClaimsWithoutSessionsAreBounded) {
  const std::string longName(1 << 20, 'x');
  for (int number = 0; number < 20; ++number) {
    EXPECT_TRUE(agent_->claimHierarchy(longName + std::to_string(number), 1));
  }
  expectErrors(
      {"updateCorrelatedSessions: hierarchyTokens without sessions keep more than a client's share of "
       "33554432 "
       "bytes, its longest idle are given up"});
  EXPECT_TRUE(agent_->claimHierarchy(longName + "0", 2));  // given up
}

// Of those that have gone, what they shared is still there.
TEST_F(SessionHierarchyTest, WhereSessionsOfAnotherUserAreOrWereNobodyClaims) {
  auto first = join(1, "T", 0);
  EXPECT_TRUE(agent_->claimHierarchy("T", first.connection->userID));
  EXPECT_FALSE(agent_->claimHierarchy("T", first.connection->userID + 1));
  auto other = connect();
  other.connection->userID += 1;
  configure(other, 2, "T", 1);
  EXPECT_FALSE(agent_->claimHierarchy("T", first.connection->userID));
  EXPECT_FALSE(agent_->claimHierarchy("T", other.connection->userID));
  end(other);
  EXPECT_FALSE(agent_->claimHierarchy("T", first.connection->userID));
  auto third = join(3, "U", 0);
  end(third, first);
  EXPECT_TRUE(agent_->claimHierarchy("U", 1000));
  EXPECT_FALSE(agent_->claimHierarchy("U", 1001));
}

}  // namespace
}  // namespace zun
