#include <limits>

#include "BackendTest.h"

namespace zun {
namespace {

constexpr int64_t kNoon = 1'700'049'600;  // 12:00:00 UTC

class HTTPSPostBackendEventRecordTest : public BackendTest {
 protected:
  Dictionary record(const HTTPSPostBackend& backend, const Dictionary& payload = {}) {
    return backend.newEventDictfromPayload(payload, kEventTime, 11, 22, 1);
  }
};

TEST_F(HTTPSPostBackendEventRecordTest, ContextFollowsThePayloadInOrder) {
  const auto backend = make(reportingClient());
  backend->setCombinedSessionIDString("77,78");
  const Dictionary expected = {{"note", "hello"},
                               {"_startTS", 1'699'999'980},
                               {"_sender", "BO"},
                               {"_clientVersion", 3},
                               {"_sessionID", "77,78"},
                               {"_eventNumber", 0},
                               {"_method", 11},
                               {"_status", 22},
                               {"_clientTS", 1'699'999'990.5},
                               {"eventTime", 1'699'999'990.5},
                               {"_productFamily", "Pallax Large"},
                               {"_productModel", "Pallax12,3"},
                               {"_osVersion", "12.11"},
                               {"_build", "21A329"},
                               {"_internal", 0},
                               {"_reportVers", "3.2.1"},
                               {"_timezoneOffset", 3600}};
  const Dictionary made = record(*backend, {{"note", "hello"}});
  EXPECT_EQ(Value(made).description(), Value(expected).description());
  EXPECT_TRUE(made["_clientTS"].isReal());
  EXPECT_TRUE(made["_internal"].isInteger());
}

TEST_F(HTTPSPostBackendEventRecordTest, PayloadKeysOfTheContextsNamesAreOverwritten) {
  const Dictionary made =
      record(*make(reportingClient()), {{"_method", "mine"}, {"note", 1}, {"_timezoneOffset", Array{}}});
  EXPECT_EQ(made["_method"], Value(11));
  EXPECT_EQ(made["_timezoneOffset"], Value(3600));
  EXPECT_EQ(made.begin()->key, Value("_method"));
}

TEST_F(HTTPSPostBackendEventRecordTest, StartGoesOutToTheMinuteAndEventTimesMoveAlong) {
  const auto backend = make(reportingClient());
  backend->setStartTimestamp({kNoon + 47, 250'000});
  const Dictionary made = backend->newEventDictfromPayload({}, {kNoon + 70, 0}, 1, 1, 1);
  EXPECT_EQ(made["_startTS"], Value(kNoon));
  EXPECT_EQ(made["_clientTS"].doubleValue(), static_cast<double>(kNoon) + 22.75);
  EXPECT_EQ(made["eventTime"], made["_clientTS"]);
}

TEST_F(HTTPSPostBackendEventRecordTest, StartBefore1970RoundsTowardZero) {
  const auto backend = make(reportingClient());
  backend->setStartTimestamp({-119, 0});
  EXPECT_EQ(record(*backend)["_startTS"], Value(-60));
}

TEST_F(HTTPSPostBackendEventRecordTest, ReportVersionLeavesOutAMinorNumberOfZero) {
  const auto backend = make(reportingClient());
  backend->setSelfVersion("4.0.0");
  EXPECT_EQ(record(*backend)["_reportVers"], Value("4.0"));
  backend->setSelfVersion("4.0.2");
  EXPECT_EQ(record(*backend)["_reportVers"], Value("4.0.2"));
}

TEST_F(HTTPSPostBackendEventRecordTest, SessionIDIsTheCombinedStringOnlyWhenSet) {
  const auto backend = make(reportingClient());
  EXPECT_FALSE(record(*backend).contains("_sessionID"));
  backend->setCombinedSessionIDString("77");
  EXPECT_TRUE(record(*backend)["_sessionID"].isString());
}

TEST_F(HTTPSPostBackendEventRecordTest, ClientType7HasTheNumericSessionIDAlways) {
  const auto backend = make(reportingClient());
  backend->setCombinedSessionIDString("77,78");
  backend->setCompType(7);
  EXPECT_EQ(record(*backend)["_sessionID"], Value(77));
  EXPECT_EQ(record(*backend)["_sender"], Value("KF"));
}

TEST_F(HTTPSPostBackendEventRecordTest, ClientTypes11And13HaveTheNumericSessionIDOnInternalClientsOnly) {
  const auto backend = make(reportingClient());
  backend->setCombinedSessionIDString("77,78");
  backend->setSessionID(4'000'000'000U);
  for (const int32_t type : {11, 12, 13}) {
    backend->setCompType(type);
    backend->setIsInternal(false);
    EXPECT_EQ(record(*backend)["_sessionID"], Value("77,78")) << type;
    backend->setIsInternal(true);
    EXPECT_EQ(record(*backend)["_sessionID"], type == 12 ? Value("77,78") : Value(4'000'000'000U)) << type;
  }
}

TEST_F(HTTPSPostBackendEventRecordTest, MissingDeviceStringsAreLeftOut) {
  const auto backend = make(reportingClient());
  backend->setProductVersion(std::nullopt);
  backend->setBuildVersion(std::nullopt);
  backend->setHardwareType(std::nullopt);
  const Dictionary made = record(*backend);
  for (const char* key : {"_osVersion", "_build", "_productModel"}) EXPECT_FALSE(made.contains(key)) << key;
}

TEST_F(HTTPSPostBackendEventRecordTest, InternalFlagIsTheDaemonsNotTheClients) {
  const auto backend = make(reportingClient());
  backend->setIsInternal(true);
  EXPECT_EQ(record(*backend)["_internal"], Value(0));
}

TEST_F(HTTPSPostBackendEventRecordTest, InternalBuildSaysSo) {
  becomeInternalBuild();
  EXPECT_EQ(record(*make(reportingClient()))["_internal"], Value(1));
}

TEST_F(HTTPSPostBackendEventRecordTest, EventNumberIsTheCounterNotTheArgument) {
  const auto backend = start(reportingClient());
  send(*backend, 1);
  send(*backend, 1);
  EXPECT_EQ(backend->newEventDictfromPayload({}, kEventTime, 1, 1, 999)["_eventNumber"], Value(2));
}

TEST_F(HTTPSPostBackendEventRecordTest, SharedDataReplacesUserInformationWhichReplacesTheRecord) {
  const auto backend = start(reportingClient());
  backend->setUserInfoDict(Dictionary{{"a", "user"}, {"b", "user"}});
  const Dictionary shared{{"b", "shared"}};
  Dictionary made{{"a", "record"}, {"b", "record"}, {"c", "record"}};
  backend->prepareEventForMessage(made, &shared);
  EXPECT_EQ(made, (Dictionary{{"a", "user"}, {"b", "shared"}, {"c", "record"}}));
}

TEST_F(HTTPSPostBackendEventRecordTest, FiltersActOnUserInformationAndSharedDataToo) {
  const auto backend = start(with(reportingClient(), "filters",
                                  Array{Dictionary{{"key", "userInfoClientName"}, {"action", "sha256"}},
                                        Dictionary{{"key", "hid"}, {"action", "remove"}}}));
  Dictionary made;
  const Dictionary shared{{"hid", "me"}};
  backend->prepareEventForMessage(made, &shared);
  EXPECT_EQ(made["userInfoClientName"], Value(ZunReportingBackend::convertIntoSHA256("Camera")));
  EXPECT_FALSE(made.contains("hid"));
}

}  // namespace
}  // namespace zun
