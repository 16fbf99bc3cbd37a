#include "HTTPSPostBackendBatchingTest.h"

namespace zun {
namespace {

// --- what is dropped, batched or sent --------------------------------------------

TEST_F(HTTPSPostBackendBatchingTest, DisabledBackendDropsMessages) {
  const auto backend = make(reportingClient());
  backend->setState(ZunBackendStateDisabled);
  EXPECT_EQ(send(*backend, 1, 1), std::nullopt);
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  EXPECT_TRUE(platform_.log.linesOf(LogLevel::kDebug).empty());
}

TEST_F(HTTPSPostBackendBatchingTest, BatchingBackendKeepsOrdinaryMessages) {
  const auto backend = start(reportingClient());
  EXPECT_EQ(send(*backend, 1), std::nullopt);
  expectDebugLine("HTTPSPostBackend(sendMessage): realtime is 0");
  expectDebugLine("HTTPSPostBackend(sendMessage): Batching 2, 1, 1");
  EXPECT_GT(backend->batchedEventsSize(), 0U);
}

TEST_F(HTTPSPostBackendBatchingTest, BackendWithoutBatchingSendsEachMessage) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  const Array events = eventsOf(send(*backend, 4));
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(field(events, 0, "_method"), Value(4));
  EXPECT_EQ(field(events, 0, "_status"), Value(9));
  EXPECT_EQ(field(events, 0, "note"), Value("hello"));
  EXPECT_EQ(field(events, 0, "userInfoClientName"), Value("Camera"));
  expectDebugLine("HTTPSPostBackend(sendMessage): Sending 2, 0, 1");
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
}

TEST_F(HTTPSPostBackendBatchingTest,
       RealtimeMessageWithNothingBatchedPostsItselfAndLeavesTheConfigurationOpen) {
  const auto backend = start(reportingClient());
  EXPECT_EQ(eventsOf(send(*backend, 4, 1)).size(), 1U);
  expectDebugLine("HTTPSPostBackend(sendMessage): realtime is 1");
  EXPECT_FALSE(immutableIs(*backend));
}

TEST_F(HTTPSPostBackendBatchingTest, RealtimeMessageFlushesTheBatchFirstAndFreezesTheConfiguration) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  send(*backend, 2);
  const auto text = send(*backend, 3, 3);
  expectDebugLine(kForced);
  ASSERT_TRUE(text);
  const std::string flushedHead = "Flushed events:\n";
  const std::string standaloneHead = "\nStandalone event:\n";
  const size_t standalone = text->find(standaloneHead);
  ASSERT_EQ(text->find(flushedHead), 0U);
  ASSERT_NE(standalone, std::string::npos);
  EXPECT_EQ(eventsOf(text->substr(flushedHead.size(), standalone - flushedHead.size())).size(), 2U);
  const std::string after = text->substr(standalone + standaloneHead.size());
  EXPECT_EQ(field(eventsOf(after), 0, "_method"), Value(3));
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  EXPECT_TRUE(immutableIs(*backend));
}

TEST_F(HTTPSPostBackendBatchingTest, ForcedFlushThatTheListsEmptyLeavesOnlyTheRealtimeEvent) {
  const auto backend = start(with(reportingClient(), "event_whitelist", Array{3}));
  send(*backend, 1);
  const auto text = send(*backend, 3, 1);
  expectDebugLine(kForced);
  EXPECT_EQ(field(eventsOf(text), 0, "_method"), Value(3));
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  EXPECT_FALSE(immutableIs(*backend));
}

TEST_F(HTTPSPostBackendBatchingTest, RealtimeEventsAreSentWhateverTheListsOfBatchedOnes) {
  const auto backend = start(with(reportingClient(), "event_blacklist", Array{3}));
  EXPECT_EQ(eventsOf(send(*backend, 3, 1)).size(), 1U);
}

TEST_F(HTTPSPostBackendBatchingTest, MessageThatIsDueWithoutBeingRealtimeLeavesTheBatchAlone) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  backend->setBatchEvents(false);
  EXPECT_EQ(eventsOf(send(*backend, 2)).size(), 1U);
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug, kForced));
  EXPECT_GT(backend->batchedEventsSize(), 0U);
}

TEST_F(HTTPSPostBackendBatchingTest, OnlyTheFlagsOneAndThreeAreRealtime) {
  const auto backend = start(reportingClient());
  for (const int32_t flag : {0, 2, 4, 5, 7, -1}) EXPECT_EQ(send(*backend, 1, flag), std::nullopt) << flag;
}

TEST_F(HTTPSPostBackendBatchingTest, MissingUserInformationHoldsAnEnabledBackendsMessages) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  backend->setUserInfoDict(std::nullopt);
  EXPECT_EQ(send(*backend, 1, 1), std::nullopt);
  expectDebugLine("HTTPSPostBackend(sendMessage): Batching 2, 0, 1");
  backend->setUserInfoDict(Dictionary());  // empty, but there
  EXPECT_TRUE(send(*backend, 1, 0).has_value());
}

TEST_F(HTTPSPostBackendBatchingTest, UserInformationThatIsNotRequiredHoldsNothingBack) {
  const auto backend = start(reportingClient());
  backend->setRequireUserInfo(false);
  backend->setUserInfoDict(std::nullopt);
  EXPECT_EQ(eventsOf(send(*backend, 1, 1)).size(), 1U);
  expectDebugLine("HTTPSPostBackend(sendMessage): Sending 2, 1, 0");
  backend->setBatchEvents(false);
  EXPECT_EQ(eventsOf(send(*backend, 1)).size(), 1U);
}

TEST_F(HTTPSPostBackendBatchingTest, PromotionTakesEffectWithTheNextMessage) {
  platform_.random.setNext({2500});
  const auto backend = start(with(reportingClient(), "sampling_threshold", 0.2));
  ASSERT_EQ(backend->state(), ZunBackendStateSampledOut);
  EXPECT_EQ(send(*backend, 1, 2), std::nullopt);
  expectDebugLine("HTTPSPostBackend(sendMessage): Batching 3, 1, 1");
  EXPECT_EQ(backend->state(), ZunBackendStateEnabled);
  const auto text = send(*backend, 2, 1);
  ASSERT_TRUE(text);
  EXPECT_EQ(text->find("Flushed events:\n"), 0U);
  expectDebugLine(kForced);
}

TEST_F(HTTPSPostBackendBatchingTest, RealtimePromotionIsBatchedStill) {
  platform_.random.setNext({2500});
  const auto backend = start(with(reportingClient(), "sampling_threshold", 0.2));
  EXPECT_EQ(send(*backend, 1, 3), std::nullopt);
  EXPECT_EQ(backend->state(), ZunBackendStateEnabled);
}

TEST_F(HTTPSPostBackendBatchingTest, OnlySampledOutBackendsArePromoted) {
  const auto backend = make(reportingClient());
  send(*backend, 1, 2);
  EXPECT_EQ(backend->state(), ZunBackendStateAwaitingUserInfo);
}

// --- payloads --------------------------------------------------------------------

TEST_F(HTTPSPostBackendBatchingTest, MessageWithoutClientDataIsItsOwnPayload) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  const auto text = backend->sendMessage(Dictionary{{"SerialNum", "Unknown"}}, kEventTime, 1, 2, 0);
  EXPECT_EQ(field(eventsOf(text), 0, "SerialNum"), Value("Unknown"));
}

TEST_F(HTTPSPostBackendBatchingTest, SharedDataIsMergedIntoTheRecord) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  const auto text = backend->sendMessage(
      Dictionary{{"ClientData", Dictionary{{"a", 1}, {"b", 1}}}, {"SharedData", Dictionary{{"b", 2}}}},
      kEventTime, 1, 2, 0);
  EXPECT_EQ(field(eventsOf(text), 0, "a"), Value(1));
  EXPECT_EQ(field(eventsOf(text), 0, "b"), Value(2));
}

// A client's own key of that name, in a message that is its payload.
TEST_F(HTTPSPostBackendBatchingTest, ClientDataThatIsNoDictionaryIsAnEntryOfThePayload) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  const auto text = backend->sendMessage(Dictionary{{"ClientData", "text"}, {"a", 1}}, kEventTime, 1, 2, 0);
  EXPECT_EQ(field(eventsOf(text), 0, "ClientData"), Value("text"));
  EXPECT_EQ(field(eventsOf(text), 0, "a"), Value(1));
}

TEST_F(HTTPSPostBackendBatchingTest, MissingMessageIsAnErrorLineAndAnEventWithoutPayload) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  const Array events = eventsOf(backend->sendMessage(std::nullopt, kEventTime, 1, 2, 0));
  expectErrors({"HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil"});
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(field(events, 0, "_method"), Value(1));
}

TEST_F(HTTPSPostBackendBatchingTest, EmptyMessageIsNotAMissingOne) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  EXPECT_EQ(eventsOf(backend->sendMessage(Dictionary(), kEventTime, 1, 2, 0)).size(), 1U);
}

TEST_F(HTTPSPostBackendBatchingTest, SessionStopCarriesMinusOneWithoutThresholds) {
  const auto backend = make(reportingClient());
  backend->setState(ZunBackendStateEnabled);
  backend->setBatchEvents(false);
  const Dictionary payload{{"note", 1}};
  const Array events = eventsOf(backend->sendMessage(message(payload), kEventTime, 0, 1, 0));
  expectDebugLine(
      "HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to SESSION_TYPE_STOP message "
      "dictionary");
  EXPECT_EQ(field(events, 0, "Opt"), Value(0));
  EXPECT_EQ(field(events, 0, "SamplingThreshold"), Value(-1));
  EXPECT_EQ(field(events, 0, "OverrideSampling"), Value(-1));
  EXPECT_EQ(field(events, 0, "Batch"), Value(0));
  EXPECT_EQ(payload.size(), 1U);
}

TEST_F(HTTPSPostBackendBatchingTest, SessionStopCarriesTheThresholdsInForce) {
  platform_.random.setNext({2500});
  setDiagnosticSubmission(false);
  setDefault("forceEventLogging", "YES");
  setDefault("environmentType", 2);
  Dictionary client = with(with(reportingClient(), "sampling_threshold", 0.2), "override_sampling", 0.5);
  client.set("override_dnu", 1);
  const auto backend = start(client);
  ASSERT_EQ(backend->state(), ZunBackendStateSampledOut);
  backend->setState(ZunBackendStateEnabled);
  const Array events = eventsOf(backend->sendMessage(Dictionary(), kEventTime, 0, 1, 1));
  EXPECT_EQ(field(events, 0, "Opt"), Value(1));
  EXPECT_EQ(field(events, 0, "SamplingThreshold"), Value(0.2));
  EXPECT_EQ(field(events, 0, "OverrideSampling"), Value(0.5));
  EXPECT_EQ(field(events, 0, "Batch"), Value(1));
  EXPECT_FALSE(field(events, 0, "Batch").isBoolean());
}

TEST_F(HTTPSPostBackendBatchingTest, SessionStopTellsOfAnOverrideWhileTheUserLetsDataOut) {
  setDefault("forceEventLogging", "YES");
  setDefault("environmentType", 1);
  const auto backend = start(with(reportingClient(), "override_dnu", 1));
  const Array events = eventsOf(backend->sendMessage(Dictionary(), kEventTime, 0, 1, 1));
  EXPECT_EQ(field(events, 0, "Opt"), Value(2));
}

// The second threshold is read only where the first one has sampled the device out.
TEST_F(HTTPSPostBackendBatchingTest, SessionStopOfASampledDeviceKnowsNoOverrideThreshold) {
  const auto backend = start(with(reportingClient(), "override_sampling", 0.5));
  const Array events = eventsOf(backend->sendMessage(Dictionary(), kEventTime, 0, 1, 1));
  EXPECT_EQ(field(events, 0, "SamplingThreshold"), Value(1));
  EXPECT_EQ(field(events, 0, "OverrideSampling"), Value(-1));
}

TEST_F(HTTPSPostBackendBatchingTest, OtherMessagesOfTheSessionMethodCarryNoThresholds) {
  const auto backend = start(with(reportingClient(), "expedite", 1));
  EXPECT_TRUE(field(eventsOf(backend->sendMessage(Dictionary(), kEventTime, 0, 0, 0)), 0, "Opt").isNone());
  EXPECT_TRUE(field(eventsOf(backend->sendMessage(Dictionary(), kEventTime, 1, 1, 0)), 0, "Opt").isNone());
}

// --- thresholds ------------------------------------------------------------------

TEST_F(HTTPSPostBackendBatchingTest, ThresholdOf49FlushesWithThe51stRecordOfOneMethod) {
  const auto backend = start(reportingClient());
  for (int i = 0; i < 50; ++i) EXPECT_EQ(send(*backend, 6), std::nullopt) << i;
  const auto text = send(*backend, 6);
  EXPECT_EQ(eventsOf(text).size(), 50U);
  expectDebugLine(
      "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method 6");
  // The record that led to it opens the next batch and is the first of its method there.
  EXPECT_GT(backend->batchedEventsSize(), 0U);
  for (int i = 0; i < 49; ++i) EXPECT_EQ(send(*backend, 6), std::nullopt) << i;
  EXPECT_EQ(eventsOf(send(*backend, 6)).size(), 50U);
}

TEST_F(HTTPSPostBackendBatchingTest, BackendWithoutStorebagSettingsHasAThresholdOf49) {
  const auto backend = make(reportingClient());
  backend->setState(ZunBackendStateEnabled);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(send(*backend, 6), std::nullopt) << i;
  EXPECT_TRUE(send(*backend, 6).has_value());
}

TEST_F(HTTPSPostBackendBatchingTest, AbsentThresholdFlushesWithTheSecondRecordOfAMethod) {
  const auto backend = start(clientWithThreshold({}));
  EXPECT_EQ(send(*backend, 6), std::nullopt);
  EXPECT_EQ(send(*backend, 7), std::nullopt);
  EXPECT_EQ(eventsOf(send(*backend, 6)).size(), 2U);
}

TEST_F(HTTPSPostBackendBatchingTest, NegativeThresholdFlushesBeforeEveryRecord) {
  const auto backend = start(clientWithThreshold(-5));
  EXPECT_EQ(send(*backend, 6), std::nullopt);
  expectDebugLine(
      "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method 6");
  EXPECT_EQ(eventsOf(send(*backend, 6)).size(), 1U);
}

TEST_F(HTTPSPostBackendBatchingTest, FlushEmptiesTheCountsOfEveryMethod) {
  const auto backend = start(clientWithThreshold(1));
  for (int i = 0; i < 2; ++i) {
    send(*backend, 6);
    send(*backend, 7);
  }
  EXPECT_EQ(eventsOf(send(*backend, 6)).size(), 4U);
  EXPECT_EQ(send(*backend, 7), std::nullopt);
  EXPECT_EQ(send(*backend, 7), std::nullopt);
  EXPECT_EQ(eventsOf(send(*backend, 7)).size(), 3U);
}

TEST_F(HTTPSPostBackendBatchingTest, FlushThatDiscardsTheBatchEmptiesTheCountsToo) {
  const auto backend = start(clientWithThreshold(1));
  send(*backend, 6);
  send(*backend, 6);
  backend->setState(ZunBackendStateSampledOut);
  EXPECT_EQ(flushError(*backend), "Nothing to flush");
  backend->setState(ZunBackendStateEnabled);
  EXPECT_EQ(send(*backend, 6), std::nullopt);
  EXPECT_EQ(send(*backend, 6), std::nullopt);
  EXPECT_EQ(eventsOf(send(*backend, 6)).size(), 2U);
}

TEST_F(HTTPSPostBackendBatchingTest, RefusedFlushAtTheThresholdKeepsTheBatchAndCountsAnew) {
  const auto backend = start(clientWithThreshold(1));
  backend->setUserInfoDict(std::nullopt);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(send(*backend, 6), std::nullopt);
  expectDebugLine(
      "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method 6");
  backend->setUserInfoDict(userInfo());
  EXPECT_EQ(send(*backend, 6), std::nullopt);  // the second one since then
  EXPECT_EQ(eventsOf(send(*backend, 6)).size(), 4U);
}

TEST_F(HTTPSPostBackendBatchingTest, ClientThatNeverReachesTheThresholdMeetsTheBatchesOwnBound) {
  const auto backend = start(clientWithThreshold(2'000'000'000));
  const std::string big(100'000, 'x');
  for (uint16_t method = 0; method < 300; ++method) {
    backend->sendMessage(message({{"big", big}}), kEventTime, method, 9, 0);
  }
  EXPECT_LE(backend->batchedEventsSize(), EventBatch::kMaximumBytes);
  EXPECT_GT(backend->batchedEventsSize(), EventBatch::kMaximumBytes / 2);
  expectErrors(
      {"HTTPSPostBackend(batchEvent): httpPost: batch of 16777216 bytes is full, dropping events until "
       "it is flushed"});
  const size_t kept = eventsOf(backend->flushMessagesWithCompletion(nullptr)).size();
  EXPECT_LT(kept, 300U);
  EXPECT_EQ(send(*backend, 1), std::nullopt);
  EXPECT_EQ(eventsOf(backend->flushMessagesWithCompletion(nullptr)).size(), 1U);
}

// Not even many sessions at once can make the daemon keep more than it bears.
TEST_F(HTTPSPostBackendBatchingTest, BatchesOfAllBackendsHaveABoundTogether) {
  const auto backend = start(clientWithThreshold(1000));
  const auto other = start(clientWithThreshold(1000));
  const size_t taken = services_.batchMemory->left();
  ASSERT_TRUE(services_.batchMemory->take(taken));  // what others keep
  EXPECT_EQ(send(*backend, 1), std::nullopt);
  EXPECT_EQ(send(*backend, 1), std::nullopt);
  expectErrors(
      {"HTTPSPostBackend(batchEvent): httpPost: its share of the memory of all batches is full, dropping "
       "events until it is flushed"});
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  services_.batchMemory->giveBack(taken);
  send(*backend, 1);
  send(*other, 1);
  EXPECT_EQ(services_.batchMemory->left(), taken - backend->batchedEventsSize() - other->batchedEventsSize());
  EXPECT_EQ(eventsOf(backend->flushMessagesWithCompletion(nullptr)).size(), 1U);
  other->setState(ZunBackendStateDisabled);
  EXPECT_EQ(flushError(*other), "Nothing to flush");
  EXPECT_EQ(services_.batchMemory->left(), taken);
}

TEST_F(HTTPSPostBackendBatchingTest, BatchOfABackendThatGoesIsGivenBack) {
  const size_t left = services_.batchMemory->left();
  auto backend = start(reportingClient());
  send(*backend, 1);
  EXPECT_LT(services_.batchMemory->left(), left);
  backend.reset();
  EXPECT_EQ(services_.batchMemory->left(), left);
}

}  // namespace
}  // namespace zun
