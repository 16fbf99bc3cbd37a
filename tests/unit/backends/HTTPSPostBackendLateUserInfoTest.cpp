#include "BackendTest.h"

namespace zun {
namespace {

/// Filters that tell by their method whether a record is filtered as itself, and by a
/// digest how often.
Dictionary filteringClient() {
  Dictionary ofMethod1{{"key", "detail"}, {"action", "remove"}, {"method", 1}};
  Dictionary ofMethod2{{"key", "note"}, {"action", "remove"}, {"method", 2}};
  return with(reportingClient(), "filters",
              Array{Dictionary{{"key", "secret"}, {"action", "remove"}},
                    Dictionary{{"key", "name"}, {"action", "sha256"}},
                    Dictionary{{"key", "userInfoServiceName"}, {"action", "sha256"}}, ofMethod1, ofMethod2});
}

class HTTPSPostBackendLateUserInfoTest : public BackendTest {
 protected:
  static std::string droppedLine(int count, const char* reason) {
    return fmt::format(
        "HTTPSPostBackend(flushMessagesWithCompletion): httpPost: dropping {} batched events, the backend {}",
        count, reason);
  }
  void sendEvent(HTTPSPostBackend& backend) {
    const Dictionary payload{{"secret", "s"}, {"name", "abc"}, {"detail", 1}, {"note", "kept"}};
    backend.sendMessage(message(payload), kEventTime, 1, 9, 0);
  }
  static void informUser(HTTPSPostBackend& backend) {
    backend.setUserInfoDict(userInfo());
    EXPECT_EQ(backend.updateState(), ZunBackendStateEnabled);
  }
  std::shared_ptr<HTTPSPostBackend> waitingBackend() {
    auto backend = make(filteringClient());
    backend->setUserInfoDict(std::nullopt);
    EXPECT_EQ(backend->updateState(), ZunBackendStateAwaitingUserInfo);
    return backend;
  }
};

TEST_F(HTTPSPostBackendLateUserInfoTest, EarlyEventsAreFilteredLikeLaterOnesWhenTheirBatchIsPosted) {
  const auto backend = waitingBackend();
  for (int i = 0; i < 3; ++i) sendEvent(*backend);
  informUser(*backend);
  for (int i = 0; i < 2; ++i) sendEvent(*backend);
  const Array events = eventsOf(backend->flushMessagesWithCompletion(nullptr));
  ASSERT_EQ(events.size(), 5U);
  const Dictionary last = with(*events[4].dictionary(), "_eventNumber", Value());
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(with(*events[i].dictionary(), "_eventNumber", Value()), last) << i;
    EXPECT_EQ(field(events, i, "_eventNumber"), Value(i + 1));
  }
  EXPECT_FALSE(last.contains("secret"));
  EXPECT_FALSE(last.contains("detail"));
  EXPECT_EQ(last["note"], Value("kept"));
  EXPECT_EQ(last["name"], Value(ZunReportingBackend::convertIntoSHA256("abc")));
  EXPECT_EQ(last["userInfoServiceName"], Value(ZunReportingBackend::convertIntoSHA256("RearCamera")));
}

TEST_F(HTTPSPostBackendLateUserInfoTest, BatchAfterThatIsFilteredOnceToo) {
  const auto backend = waitingBackend();
  for (int i = 0; i < 3; ++i) sendEvent(*backend);
  informUser(*backend);
  EXPECT_EQ(eventsOf(backend->flushMessagesWithCompletion(nullptr)).size(), 3U);
  sendEvent(*backend);
  EXPECT_EQ(field(eventsOf(backend->flushMessagesWithCompletion(nullptr)), 0, "name"),
            Value(ZunReportingBackend::convertIntoSHA256("abc")));
}

TEST_F(HTTPSPostBackendLateUserInfoTest, ListsJudgeEarlyEventsAsTheyAreAfterTheFilters) {
  Dictionary client = with(filteringClient(), "event_whitelist", Array{1});
  client.set("filters", Array{Dictionary{{"key", "_method"}, {"action", "remove"}}});
  const auto backend = make(client);
  backend->setUserInfoDict(std::nullopt);
  sendEvent(*backend);
  informUser(*backend);
  sendEvent(*backend);
  EXPECT_EQ(backend->flushMessagesWithCompletion(nullptr), std::nullopt);
  EXPECT_EQ(
      platform_.log.linesOf(LogLevel::kDebug).back(),
      "flushMessagesWithCompletion: Dropping event with category 0 as it is not whitelisted for backend "
      "httpPost");
}

TEST_F(HTTPSPostBackendLateUserInfoTest, EarlyEventsThatALongIdentifierDropsMixUpNoFilters) {
  const auto backend = waitingBackend();
  sendEvent(*backend);
  sendEvent(*backend);
  const size_t others = services_.batchMemory->left() - 50'000;
  ASSERT_TRUE(services_.batchMemory->take(others));
  backend->setCorrelatedSessionID(std::string(20'000, '7'));
  (void)backend->state();
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);  // one of the two is dropped
  services_.batchMemory->giveBack(others);
  informUser(*backend);
  sendEvent(*backend);
  const Array events = eventsOf(backend->flushMessagesWithCompletion(nullptr));
  ASSERT_EQ(events.size(), 2U);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(field(events, i, "name"), Value(ZunReportingBackend::convertIntoSHA256("abc"))) << i;
  }
}

// Filters come with the client entry, which the user information chooses.
TEST_F(HTTPSPostBackendLateUserInfoTest, BackendThatRequiresNoUserInformationFiltersNothing) {
  const auto backend = make(filteringClient());
  backend->setRequireUserInfo(false);
  backend->updateState();
  sendEvent(*backend);
  const Array events = eventsOf(backend->flushMessagesWithCompletion(nullptr));
  EXPECT_EQ(field(events, 0, "secret"), Value("s"));
  EXPECT_EQ(field(events, 0, "name"), Value("abc"));
}

// --- what is thrown away ---------------------------------------------------------

TEST_F(HTTPSPostBackendLateUserInfoTest, EventsDroppedBeforeTheUserInformationHaveTheirLine) {
  const auto backend = make(reportingClient());
  for (int i = 0; i < 50; ++i) send(*backend, 6);
  platform_.log.clear();
  send(*backend, 6);
  EXPECT_EQ(platform_.log.linesOf(LogLevel::kDefault),
            std::vector<std::string>{droppedLine(50, "waits for user information")});
  backend->flushMessagesWithCompletion(nullptr);
  expectDefaultLine(droppedLine(1, "waits for user information"));
}

TEST_F(HTTPSPostBackendLateUserInfoTest, EventsDroppedByADisabledBackendHaveTheirLine) {
  const auto backend = start(reportingClient());
  send(*backend, 6);
  send(*backend, 7);
  backend->setState(ZunBackendStateDisabled);
  backend->flushMessagesWithCompletion(nullptr);
  expectDefaultLine(droppedLine(2, "is disabled"));
}

// There it is what sampling is for.
TEST_F(HTTPSPostBackendLateUserInfoTest, EventsDroppedByASampledOutBackendAreADebugLine) {
  const auto backend = start(reportingClient());
  for (int i = 0; i < 50; ++i) send(*backend, 6);
  backend->setState(ZunBackendStateSampledOut);
  platform_.log.clear();
  send(*backend, 6);
  expectDebugLine(droppedLine(50, "is sampled out"));
  EXPECT_TRUE(platform_.log.linesOf(LogLevel::kDefault).empty());
}

TEST_F(HTTPSPostBackendLateUserInfoTest, FlushThatDropsNoEventHasNoLine) {
  const auto backend = start(with(reportingClient(), "event_threshold", -5));
  backend->setState(ZunBackendStateAwaitingUserInfo);
  platform_.log.clear();
  send(*backend, 6);  // flushes the batch before the first event is in it
  EXPECT_TRUE(platform_.log.linesOf(LogLevel::kDefault).empty());
}

}  // namespace
}  // namespace zun
