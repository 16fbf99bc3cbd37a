#include "BackendTest.h"
#include "KeepingHelper.h"

namespace zun {
namespace {

// What stays and what ends when the user information changes and another client entry
// applies.
class HTTPSPostBackendReconfigurationTest : public BackendTest {
 protected:
  /// A backend in use by "Camera", under `first`, with `second` for the client "Other".
  std::shared_ptr<HTTPSPostBackend> startBetween(const Dictionary& first, const Dictionary& second) {
    const auto backend = makeFrom({{"clients", Array{with(first, "client", "Camera"), second}}});
    backend->updateState();
    return backend;
  }
  static void becomeSecondClient(HTTPSPostBackend& backend) {
    backend.setUserInfoDict(userInfo("Other", "RearCamera"));
    EXPECT_EQ(backend.updateState(), ZunBackendStateEnabled);
  }
};

TEST_F(HTTPSPostBackendReconfigurationTest, OverrideOfTheUsersChoiceEndsWithItsEntry) {
  const auto backend = startBetween(with(reportingClient(), "override_dnu", 1), reportingClient());
  becomeSecondClient(*backend);
  const auto text = backend->sendMessage(Dictionary(), kEventTime, 0, 1, 1);
  EXPECT_EQ(field(eventsOf(text), 0, "Opt"), Value(0));
}

TEST_F(HTTPSPostBackendReconfigurationTest, EventListsStayWhereTheNextEntryHasNone) {
  Dictionary listing = with(reportingClient(), "event_whitelist", Array{1, 2});
  listing.set("event_blacklist", Array{2});
  const auto backend = startBetween(listing, reportingClient());
  becomeSecondClient(*backend);
  EXPECT_TRUE(backend->isWhitelistedEvent(1));
  EXPECT_FALSE(backend->isWhitelistedEvent(3));
  EXPECT_TRUE(backend->isBlacklistedEvent(2));
}

TEST_F(HTTPSPostBackendReconfigurationTest, WiFiOnlyEndsWithItsEntry) {
  const auto backend = startBetween(with(reportingClient(), "use_wifi_only", 1), reportingClient());
  const auto helper = std::make_shared<KeepingHelper>();
  backend->setReportingSessionConnectivityDelegate(helper);
  const auto access = [&] {
    backend->postJSONMessage("{}", 0, std::nullopt, std::nullopt, nullptr);
    return helper->requests.back().cellularAccess;
  };
  EXPECT_EQ(access(), CellularAccess::kForbidden);
  becomeSecondClient(*backend);
  EXPECT_EQ(access(), CellularAccess::kAllowed);
}

TEST_F(HTTPSPostBackendReconfigurationTest, FrozenBackendIgnoresTheNextEntrysExpedite) {
  const auto backend = startBetween(reportingClient(), with(reportingClient(), "expedite", 1));
  send(*backend, 1);
  EXPECT_TRUE(backend->flushMessagesWithCompletion(nullptr).has_value());
  becomeSecondClient(*backend);
  EXPECT_EQ(send(*backend, 1), std::nullopt);
  expectDebugLine("HTTPSPostBackend(sendMessage): Batching 2, 1, 1");
}

using HTTPSPostBackendFrozenTest = HandCrankedBackendTest;

// A server's answer may disable the backend between the reading and a writing back.
TEST_F(HTTPSPostBackendFrozenTest, UpdateOfAFrozenBackendWritesNoState) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  EXPECT_TRUE(backend->flushMessagesWithCompletion(nullptr).has_value());
  executor_.runAll();
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
  EXPECT_EQ(executor_.waiting(), 0U);
}

}  // namespace
}  // namespace zun
