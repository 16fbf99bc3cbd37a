#include <thread>

#include "HTTPSPostBackendBatchingTest.h"
#include "util/MemoryUse.h"

namespace zun {
namespace {

// --- flushing --------------------------------------------------------------------

TEST_F(HTTPSPostBackendBatchingTest, FlushWithoutABatchHasNothingToFlush) {
  const auto backend = start(reportingClient());
  EXPECT_EQ(flushError(*backend), "Nothing to flush");
  EXPECT_EQ(backend->flushMessagesWithCompletion(nullptr), std::nullopt);
}

TEST_F(HTTPSPostBackendBatchingTest, FlushOfABackendThatIsNotEnabledDiscardsTheBatch) {
  for (const int32_t state : {0, 1, 3}) {
    const auto backend = start(reportingClient());
    send(*backend, 1);
    backend->setState(state);
    EXPECT_EQ(flushError(*backend), "Nothing to flush") << state;
    EXPECT_EQ(backend->batchedEventsSize(), 0U) << state;
  }
}

TEST_F(HTTPSPostBackendBatchingTest, MessagesThatWaitForUserInformationAreBatched) {
  const auto backend = make(reportingClient());
  EXPECT_EQ(send(*backend, 1, 1), std::nullopt);
  expectDebugLine("HTTPSPostBackend(sendMessage): Batching 0, 1, 1");
  EXPECT_GT(backend->batchedEventsSize(), 0U);
  EXPECT_EQ(flushError(*backend), "Nothing to flush");
}

TEST_F(HTTPSPostBackendBatchingTest, FlushWithoutRequiredUserInformationKeepsTheBatch) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  backend->setUserInfoDict(std::nullopt);
  EXPECT_EQ(flushError(*backend), "Can not flush: userInfo is required");
  EXPECT_EQ(backend->flushMessagesWithCompletion(nullptr), std::nullopt);
  backend->setUserInfoDict(userInfo());
  EXPECT_EQ(eventsOf(backend->flushMessagesWithCompletion(nullptr)).size(), 1U);
}

TEST_F(HTTPSPostBackendBatchingTest, FlushNeedsNoUserInformationThatIsNotRequired) {
  const auto backend = start(reportingClient());
  backend->setRequireUserInfo(false);
  backend->setUserInfoDict(std::nullopt);
  send(*backend, 1);
  EXPECT_EQ(eventsOf(backend->flushMessagesWithCompletion(nullptr)).size(), 1U);
}

TEST_F(HTTPSPostBackendBatchingTest, FlushAddsFilteredUserInformationToEveryRecord) {
  Dictionary removeName{{"key", "userInfoClientName"}, {"action", "remove"}, {"method", 0}};
  const auto backend = start(with(reportingClient(), "filters", Array{removeName}));
  send(*backend, 1);
  backend->setUserInfoDict(userInfo("Other", "FrontCamera"));
  const Array events = eventsOf(backend->flushMessagesWithCompletion(nullptr));
  expectDebugLine("HTTPSPostBackend(flushMessagesWithCompletion): called");
  // Filtered as method 0, the user information of now lacks the name: that of the
  // record, which came under method 1, stays.
  EXPECT_EQ(field(events, 0, "userInfoClientName"), Value("Camera"));
  EXPECT_EQ(field(events, 0, "userInfoServiceName"), Value("FrontCamera"));
}

// A client may batch thousands of small events and then change its user information.
TEST_F(HTTPSPostBackendBatchingTest, LargeUserInformationIsNotMultipliedByTheBatch) {
  const auto backend = start(clientWithThreshold(100'000));
  for (int i = 0; i < 2'000; ++i) send(*backend, 1);
  Dictionary info = userInfo();
  for (int i = 0; i < 4'000; ++i) info.set("key" + std::to_string(i), i);
  backend->setUserInfoDict(info);
  const size_t bytes = static_cast<uint32_t>(estimatedObjectSize(Value(info)));
  const size_t kept = EventBatch::kMaximumBytes / bytes;
  ASSERT_LT(kept, 2'000U);
  EXPECT_EQ(eventsOf(backend->flushMessagesWithCompletion(nullptr)).size(), kept);
  expectErrors({fmt::format(
      "HTTPSPostBackend(flushMessagesWithCompletion): httpPost: dropping {} events, too many for user "
      "information of {} bytes",
      2'000 - kept, bytes)});
}

TEST_F(HTTPSPostBackendBatchingTest, FlushDropsEventsOutsideTheListsAndKeepsTheOrder) {
  const auto backend =
      start(with(with(reportingClient(), "event_whitelist", Array{1, 2, 3}), "event_blacklist", Array{2}));
  for (const uint16_t method : {3, 9, 2, 1}) send(*backend, method);
  const Array events = eventsOf(backend->flushMessagesWithCompletion(nullptr));
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(field(events, 0, "_method"), Value(3));
  EXPECT_EQ(field(events, 1, "_method"), Value(1));
  expectDebugLine(
      "flushMessagesWithCompletion: Dropping event with category 9 as it is not whitelisted for backend "
      "httpPost");
  expectDebugLine(
      "flushMessagesWithCompletion: Dropping event with category 2 as it is blacklisted for backend "
      "httpPost");
}

TEST_F(HTTPSPostBackendBatchingTest, FlushJudgesRecordsByTheLow16BitsOfTheirMethod) {
  const auto backend =
      start(with(with(reportingClient(), "event_whitelist", Array{1, 2}), "event_blacklist", Array{2}));
  backend->batchEvent({{"_method", 65536 + 1}});
  backend->batchEvent({{"_method", 65536 + 2}});
  EXPECT_EQ(eventsOf(backend->flushMessagesWithCompletion(nullptr)).size(), 1U);
  expectDebugLine(
      "flushMessagesWithCompletion: Dropping event with category 2 as it is blacklisted for backend "
      "httpPost");
}

TEST_F(HTTPSPostBackendBatchingTest, BatchThatTheListsEmptyIsClearedAndLeavesTheConfigurationOpen) {
  const auto backend = start(with(reportingClient(), "event_whitelist", Array{}));
  send(*backend, 1);
  EXPECT_EQ(flushError(*backend), "Nothing to flush: batched events were completely filtered out");
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  EXPECT_FALSE(immutableIs(*backend));
}

TEST_F(HTTPSPostBackendBatchingTest, FlushedBackendKeepsItsStateAndSettings) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  EXPECT_TRUE(backend->flushMessagesWithCompletion(nullptr).has_value());
  platform_.log.clear();
  platform_.locale.region = "US";
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
  backend->setState(ZunBackendStateDisabled);
  EXPECT_EQ(backend->updateState(), ZunBackendStateDisabled);
  EXPECT_TRUE(platform_.log.linesOf(LogLevel::kDefault).empty());
}

TEST_F(HTTPSPostBackendBatchingTest, FrozenBackendTakesOverNothingElse) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  EXPECT_TRUE(backend->flushMessagesWithCompletion(nullptr).has_value());
  backend->setSamplingThreshold(0.125);  // as a parent session does
  backend->setPostURL("https://b.example/post");
  backend->updateState();
  EXPECT_EQ(backend->samplingThreshold(), Value(0.125));
  EXPECT_EQ(backend->postURL(), "https://b.example/post");
}

TEST_F(HTTPSPostBackendBatchingTest, FlushWhoseTextMayNotBeLoggedLeavesTheConfigurationOpen) {
  setDiagnosticSubmission(false);
  const auto backend = start(with(reportingClient(), "override_dnu", 1));
  send(*backend, 1);
  EXPECT_EQ(backend->flushMessagesWithCompletion(nullptr), std::nullopt);
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  EXPECT_FALSE(immutableIs(*backend));
}

TEST_F(HTTPSPostBackendBatchingTest, FlushWithoutHelperNeverCallsItsCompletion) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  const auto outcome = std::make_shared<Outcome>();
  EXPECT_TRUE(backend->flushMessagesWithCompletion(keepIn(outcome)).has_value());
  EXPECT_EQ(outcome->calls, 0);
  EXPECT_EQ(outcome.use_count(), 1);  // let go
}

// --- correlation and size --------------------------------------------------------

TEST_F(HTTPSPostBackendBatchingTest, CorrelatedSessionIDReachesBatchedRecordsAndLaterOnes) {
  const auto backend = start(reportingClient());
  backend->setCombinedSessionIDString("77");
  send(*backend, 1);
  backend->setCorrelatedSessionID("77,78");
  send(*backend, 2);
  const Array events = eventsOf(backend->flushMessagesWithCompletion(nullptr));
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(field(events, 0, "_sessionID"), Value("77,78"));
  EXPECT_EQ(field(events, 1, "_sessionID"), Value("77,78"));
}

// A hierarchy of many levels has a long identifier, and thousands of small records may wait.
TEST_F(HTTPSPostBackendBatchingTest, LongCorrelatedSessionIDIsNotMultipliedByTheBatch) {
  const auto backend = start(clientWithThreshold(100'000));
  for (int i = 0; i < 2'000; ++i) send(*backend, 1);
  const std::string identifier(10'000, '7');
  backend->setCorrelatedSessionID(identifier);
  (void)backend->state();  // the state queue has come to it
  EXPECT_LE(backend->batchedEventsSize(), EventBatch::kMaximumBytes);
  const size_t left = ReportingServices::kBatchMemoryBytes - backend->batchedEventsSize();
  EXPECT_LE(services_.batchMemory->left(), left);
  EXPECT_GE(services_.batchMemory->left(), left - MemoryShare::kUsualStep);
  const Array events = eventsOf(backend->flushMessagesWithCompletion(nullptr));
  EXPECT_LT(events.size(), 2'000U);
  ASSERT_GT(events.size(), 700U);
  EXPECT_EQ(field(events, events.size() - 1, "_sessionID"), Value(identifier));
  EXPECT_EQ(field(events, events.size() - 1, "_eventNumber"), Value(events.size()));
  expectErrors({fmt::format(
      "HTTPSPostBackend(setCorrelatedSessionID): httpPost: dropping {} events, too many for an identifier of "
      "10000 bytes",
      2'000 - events.size())});
}

TEST_F(HTTPSPostBackendBatchingTest, BatchSizeIsTheSumOfTheRecordsEstimates) {
  const auto backend = start(reportingClient());
  EXPECT_EQ(backend->batchedEventsSize(), 0U);
  send(*backend, 1);
  const uint32_t one = backend->batchedEventsSize();
  send(*backend, 2);
  EXPECT_EQ(backend->batchedEventsSize(), 2 * one);
}

// One session's messages and flushes beside what other sessions' threads may do.
TEST_F(HTTPSPostBackendBatchingTest, BatchIsSafeFromOtherThreads) {
  const auto backend = start(reportingClient());
  std::thread other([&backend] {
    for (int i = 0; i < 200; ++i) {
      backend->setCorrelatedSessionID("1," + std::to_string(i));
      (void)backend->batchedEventsSize();
      (void)backend->state();
      backend->setSamplingThreshold(0.5);
    }
  });
  size_t flushed = 0;
  for (uint16_t i = 0; i < 200; ++i) {
    send(*backend, i);
    if (i % 50 == 49) flushed += eventsOf(backend->flushMessagesWithCompletion(nullptr)).size();
  }
  other.join();
  EXPECT_EQ(flushed, 200U);
}

}  // namespace
}  // namespace zun
