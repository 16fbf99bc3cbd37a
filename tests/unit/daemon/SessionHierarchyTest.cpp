#include "SessionHierarchyTest.h"

namespace zun {
namespace {

// --- who is whose parent ---------------------------------------------------------

TEST_F(SessionHierarchyTest, ParentIDStringJoinsAllLevelsFromTheTop) {
  Client a = join(1, "family", 0);
  Client b = join(2, "family", 1);
  Client c = join(3, "family", 2);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*c.session), a.id() + "." + b.id());
  expectDebugLine("parentSessionIDStringForSession: Checking hierarchyToken 'family' for session 3");
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*b.session), a.id());
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*a.session), std::nullopt);
  EXPECT_EQ(agent_->parentSessionForChild(*a.session), nullptr);
  end(a, b, c);
}

TEST_F(SessionHierarchyTest, NoParentIsLookedForAtTheTopAndWithoutAToken) {
  Client top = join(1, "family", 0);
  Client alone = connect();
  alone->setSessionInfo({{zunreporting::kZunReportingSessionInfoSessionID, 2}}, std::nullopt, {}, false);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*top.session), std::nullopt);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*alone.session), std::nullopt);
  EXPECT_EQ(agent_->parentSessionForChild(*top.session), nullptr);
  EXPECT_EQ(agent_->parentSessionForChild(*alone.session), nullptr);
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
    EXPECT_FALSE(line.starts_with("parentSessionIDStringForSession: Checking")) << line;
    EXPECT_FALSE(line.starts_with("parentSessionForChild: Checking")) << line;
  }
  end(top, alone);
}

TEST_F(SessionHierarchyTest, GapAtTheParentGivesNoneAndOneFurtherUpGivesWhatIsBelowIt) {
  Client a = join(1, "family", 0);
  Client c = join(3, "family", 2);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*c.session), std::nullopt);
  expectDefaultLine(
      "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete "
      "parentSessionID is '(null)'");
  Client b = join(2, "family", 1);
  end(a);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*c.session), b.id());
  expectDefaultLine(
      "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete "
      "parentSessionID is '" +
      b.id() + "'");
  end(b, c);
}

TEST_F(SessionHierarchyTest, SessionThatHasNotJoinedIsNotFound) {
  Client child = join(1, "family", 1);
  agent_->invalidateReportingSession(child.session);
  // Its token's list is there, and empty.
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*child.session), std::nullopt);
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), nullptr);
  expectErrors({"parentSessionIDStringForSession: ERROR: No sessions found for hierarchyToken family",
                "parentSessionForChild: ERROR: No sessions found for hierarchyToken family"});
  expectDebugLine("parentSessionForChild: Checking hierarchyToken 'family' for session 1");

  Client other = join(2, "family", 0);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*child.session), std::nullopt);
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), nullptr);
  expectDefaultLine("parentSessionIDStringForSession: Session 1 not found for hierarchyToken family");
  expectErrors({"parentSessionForChild: ERROR: Session 1 not found for hierarchyToken family"});
  end(other);
}

TEST_F(SessionHierarchyTest, OfTwoSessionsAtOneLevelTheFirstToJoinCountsAndThenTheSecond) {
  Client first = join(1, "family", 0);
  Client second = join(2, "family", 0);
  Client child = join(3, "family", 1);
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), first.session);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*child.session), first.id());
  configure(first, 1, "family", 0);  // joins again, and now stands behind the other
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), second.session);
  end(second);
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), first.session);
  end(first, child);
}

TEST_F(SessionHierarchyTest, SessionThatChangesItsTokenMovesToTheOtherList) {
  Client parent = join(1, "old", 0);
  Client oldChild = join(2, "old", 1);
  Client newChild = join(3, "new", 1);
  EXPECT_EQ(agent_->parentSessionForChild(*newChild.session), nullptr);
  configure(parent, 1, "new", 0);
  expectDebugLine(
      "updateCorrelatedSessions: Adding session 1 to list for hierarchyToken new with hierarchyLevel 0");
  EXPECT_EQ(agent_->parentSessionForChild(*newChild.session), parent.session);
  EXPECT_EQ(agent_->parentSessionForChild(*oldChild.session), nullptr);
  expectDefaultLine(
      "parentSessionForChild: Unable to find session with hierarchy of 0 for hierarchyToken 'old'");
  end(parent, oldChild, newChild);
}

TEST_F(SessionHierarchyTest, SessionThatChangesItsLevelIsFoundAtTheNewOne) {
  Client parent = join(1, "family", 0);
  Client child = join(2, "family", 3);
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), nullptr);
  configure(parent, 1, "family", 2);
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), parent.session);
  end(parent, child);
}

// It never leaves its list for want of another one; without a hierarchy its level is 0.
TEST_F(SessionHierarchyTest, SessionThatLosesItsTokenStaysInItsListAtLevelZeroAndNeverDangles) {
  Client former = join(1, "family", 4);
  Client child = join(2, "family", 1);
  configure(former, 1, "", 0);
  expectDefaultLine(
      "updateCorrelatedSessions: Session 1 has no correlated sessions as it is a standalone session");
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), former.session);
  EXPECT_EQ(agent_->parentSessionForChild(*former.session), nullptr);
  const std::weak_ptr<ReportingdSession> watched = former.session;
  end(former);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), nullptr);
  end(child);
}

TEST_F(SessionHierarchyTest, TableDoesNotKeepSessionsAlive) {
  Client parent = join(1, "family", 0);
  Client child = join(2, "family", 1);
  const std::weak_ptr<ReportingdSession> watched = parent.session;
  end(parent);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(agent_->parentSessionForChild(*child.session), nullptr);
  end(child);
}

// Levels are the clients' to choose: their numbers must cost nothing.
TEST_F(SessionHierarchyTest, LargestLevelsAreLevelsLikeOthers) {
  Client top = start(1, "family", 0, Aggregates::kYes);
  Client parent = join(2, "family", 4294967294);
  Client deepest = start(3, "family", -1);
  EXPECT_EQ(deepest->hierarchyLevel(), 4294967295U);
  EXPECT_EQ(agent_->parentSessionForChild(*deepest.session), parent.session);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*deepest.session), parent.id());
  copies(top);
  send(deepest, 5);
  EXPECT_EQ(copies(top), Copies{"3:5"});
  end(top, parent, deepest);
}

TEST_F(SessionHierarchyTest, LongChainOfLevelsIsJoinedInOnePass) {
  std::vector<Client> chain;
  std::string expected;
  for (uint32_t level = 0; level < 300; ++level) {
    chain.push_back(join(level, "family", level));
    if (level < 299) expected += (level == 0 ? "" : ".") + chain.back().id();
  }
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*chain.back().session), expected);
  for (Client& client : chain) end(client);
}

// --- whom a change reaches -------------------------------------------------------

TEST_F(SessionHierarchyTest, ChangeReachesAllDeeperSessionsInTheOrderInWhichTheyJoined) {
  Client deep = start(4, "family", 5);
  Client top = start(1, "family", 0);
  Client child = start(2, "family", 1);
  Client sibling = start(3, "family", 1);
  Client stranger = start(9, "others", 7);
  platform_.log.clear();
  agent_->updateDownstreamSessions(*child.session);
  EXPECT_EQ(countDebug(updating(4)), 1);
  for (const int number : {1, 2, 3, 9}) EXPECT_EQ(countDebug(updating(number)), 0) << number;
  expectDebugLine("updateCombinedSessionID: Updating combined session ID '" + top.id() + "." + child.id() +
                  "' for session 2 backends");

  platform_.log.clear();
  agent_->updateDownstreamSessions(*top.session);
  std::vector<std::string> order;
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
    if (line.starts_with("updateDownstreamSessions: ")) order.push_back(line);
  }
  EXPECT_EQ(order, (std::vector<std::string>{updating(4), updating(2), updating(3)}));
  end(deep, top, child, sibling, stranger);
}

TEST_F(SessionHierarchyTest, CombinedIDComesBeforeTheStatesForTheSessionItselfAndForThoseBelow) {
  Client top = start(1, "family", 0);
  Client middle = start(2, "family", 1);
  Client deep = start(3, "family", 2);
  platform_.log.clear();
  agent_->updateDownstreamSessions(*middle.session);
  std::vector<std::string> order;
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
    if (line.starts_with("updateCombinedSessionID: ")) order.emplace_back("ID");
    if (line.starts_with("HTTPSPostBackend(syncReportingStates): ")) order.emplace_back("states");
    if (line == updating(3)) order.emplace_back("below");
  }
  EXPECT_EQ(order, (std::vector<std::string>{"ID", "states", "below", "ID", "states"}));
  end(deep, middle, top);
}

// One that has not started has no states to take over; it is told all the same.
TEST_F(SessionHierarchyTest, ChangeReachesSessionsThatHaveNotStarted) {
  Client top = start(1, "family", 0);
  Client waiting = join(2, "family", 2);
  platform_.log.clear();
  agent_->updateDownstreamSessions(*top.session);
  EXPECT_EQ(countDebug(updating(2)), 1);
  expectDefaultLine(
      "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete "
      "parentSessionID is '(null)'");
  expectDefaultLine(
      "parentSessionForChild: Unable to find session with hierarchy of 1 for hierarchyToken 'family'");
  end(waiting, top);
}

TEST_F(SessionHierarchyTest, StandaloneSessionChangesNobody) {
  Client alone = start(1, "", 0);
  Client child = start(2, "family", 1);
  platform_.log.clear();
  agent_->updateDownstreamSessions(*alone.session);
  EXPECT_TRUE(platform_.log.lines().empty());
  end(alone, child);
}

TEST_F(SessionHierarchyTest, StartingUnderAnAggregatingAncestorEndsOnesOwnAggregation) {
  Client top = start(1, "family", 0, Aggregates::kYes);
  EXPECT_EQ(copies(top), Copies{"1:0"});  // its start message: it aggregates itself
  Client child = start(2, "family", 1, Aggregates::kYes);
  EXPECT_EQ(copies(child), Copies{"end"});
  EXPECT_FALSE(child->hasAggregator());
  EXPECT_TRUE(top->hasAggregator());
  EXPECT_EQ(copies(top), Copies{"2:0"});
  expectDebugLine("shutdownSessionAggregation: Disable aggregation module for session 2");
  end(child, top);
}

TEST_F(SessionHierarchyTest, SessionUnderAnAggregatorIsAskedToEndAggregationEvenWhereItHasNone) {
  const std::string disabling = "shutdownSessionAggregation: Disable aggregation module for session ";
  Client top = start(1, "family", 0, Aggregates::kYes);
  Client child = start(2, "family", 1);
  Client deep = start(3, "family", 2);
  platform_.log.clear();
  agent_->updateDownstreamSessions(*child.session);
  EXPECT_EQ(countDebug(disabling + "2"), 1);
  EXPECT_EQ(countDebug(disabling + "3"), 0);  // those below only where they have one
  EXPECT_TRUE(copies(child).empty());
  end(deep, child, top);
}

TEST_F(SessionHierarchyTest, StartingAboveAggregatorsEndsTheirs) {
  Client middle = start(2, "family", 1, Aggregates::kYes);
  Client deep = start(3, "family", 2);
  Client deeper = join(4, "family", 3, Aggregates::kYes);
  copies(middle);
  Client top = start(1, "family", 0, Aggregates::kYes);
  EXPECT_EQ(copies(middle), Copies{"end"});
  EXPECT_EQ(copies(deeper), Copies{"end"});
  EXPECT_TRUE(copies(deep).empty());
  EXPECT_EQ(copies(top), Copies{"1:0"});
  agent_->updateDownstreamSessions(*top.session);
  EXPECT_TRUE(copies(middle).empty());  // told once
  end(deeper, deep, middle, top);
}

// Its own was ended by the ancestor's; the descendants' go all the same.
TEST_F(SessionHierarchyTest, AncestorOfTheOneThatStartsEndsAggregationBelowIt) {
  Client top = join(1, "family", 0, Aggregates::kYes);
  Client deep = join(3, "family", 2, Aggregates::kYes);
  Client middle = start(2, "family", 1);
  EXPECT_EQ(copies(deep), Copies{"end"});
  EXPECT_FALSE(deep->hasAggregator());
  EXPECT_EQ(copies(top), Copies{"2:0"});
  end(middle, deep, top);
}

TEST_F(SessionHierarchyTest, WithoutAggregatorAboveThoseBelowGoOn) {
  Client deep = join(3, "family", 2, Aggregates::kYes);
  Client top = start(1, "family", 0);
  EXPECT_TRUE(deep->hasAggregator());
  EXPECT_TRUE(copies(deep).empty());
  end(deep, top);
}

TEST_F(SessionHierarchyTest, StartingAgainTellsTheNewBackendsAndThoseBelow) {
  Client top = start(1, "family", 0);
  Client child = start(2, "family", 1);
  const std::string state =
      "HTTPSPostBackend(syncReportingStates): httpPost: state and sampling rate updated to ";
  const std::string combined = "updateCombinedSessionID: Updating combined session ID '" + top.id() + "." +
                               child.id() + "' for session 2 backends";
  for (const Client& again : {child, top}) {
    platform_.log.clear();
    again->startConfigWithCompletionHandler(nullptr);
    EXPECT_EQ(countDebug(combined), 1);
    EXPECT_EQ(countDebug(state + "0, 0.00%"), 1);
  }
  EXPECT_EQ(countDebug(updating(2)), 1);
  end(child, top);
}

TEST_F(SessionHierarchyTest, SingleMessageTakesItsSessionIntoTheHierarchyItNames) {
  Client top = start(1, "family", 0, Aggregates::kYes);
  Client deep = start(3, "family", 2);
  Client single = start(9, "others", 0, Aggregates::kYes);
  copies(top);
  copies(single);
  platform_.log.clear();
  std::string status;
  single->sendMessageWithSessionInfo(info(2, "family", 1),
                                     Dictionary{{zunreporting::kZunReportingUserInfoClientName, "C"},
                                                {zunreporting::kZunReportingUserInfoServiceName, "S"}},
                                     5, 6, std::nullopt,
                                     [&status](const std::string& text) { status = text; });
  EXPECT_EQ(status, "finished");
  expectDebugLine(
      "updateCorrelatedSessions: Adding session 2 to list for hierarchyToken family with hierarchyLevel 1");
  EXPECT_EQ(agent_->parentSessionForChild(*deep.session), single.session);
  EXPECT_EQ(agent_->parentSessionIDStringForSession(*deep.session), top.id() + "." + single.id());
  expectDebugLine("updateCombinedSessionID: Updating combined session ID '" + top.id() + "." + single.id() +
                  "' for session 2 backends");
  EXPECT_EQ(countDebug(updating(3)), 1);
  // The message itself is not aggregated; but the one above has taken over from its client.
  EXPECT_EQ(copies(single), Copies{"end"});
  EXPECT_TRUE(copies(top).empty());
  end(single, deep, top);
}

}  // namespace
}  // namespace zun
