#include <limits>

#include "BackendTest.h"

namespace zun {
namespace {

class HTTPSPostBackendConfigurationTest : public BackendTest {
 protected:
  int32_t stateOf(const Dictionary& client) { return start(client)->state(); }
  int32_t stateOfClients(Array clients, Dictionary userInfo) {
    const auto backend = make(reportingClient());
    const auto other = makeWithProfile(Dictionary{{"clients", std::move(clients)}});
    other->setRequireUserInfo(true);
    other->setHardwareType("Pallax12,3");
    other->setSelfVersion("3.2.1");
    other->setUserInfoDict(std::move(userInfo));
    return other->updateState();
  }
  /// The state with a draw of 0.25.
  int32_t sampled(const Value& threshold, const Value& overrideSampling) {
    platform_.random.setNext({2500});
    return stateOf(with(with(reportingClient(), "sampling_threshold", threshold), "override_sampling",
                        overrideSampling));
  }
  bool matches(const char* clientNames, const char* services, Value client, Value service) {
    Dictionary entry = reportingClient();
    if (clientNames != nullptr) entry.set("client", clientNames);
    if (services != nullptr) entry.set("service", services);
    return stateOfClients({entry}, with(userInfo(std::move(client), std::move(service)), "more", 1)) ==
           ZunBackendStateEnabled;
  }
};

// --- creation --------------------------------------------------------------------

TEST_F(HTTPSPostBackendConfigurationTest, UserDefaultsSupplyThePostURLs) {
  setDefault("httpsPostURL", "https://a.example/post");
  setDefault("httpsRealtimePostURL", "https://a.example/now");
  const auto backend = make(reportingClient());
  EXPECT_EQ(backend->postURL(), "https://a.example/post");
  expectDefaultLine(
      "HTTPSPostBackend(initWithName): Using user default 'https://a.example/post' for postURL");
  expectDefaultLine(
      "HTTPSPostBackend(initWithName): Using user default 'https://a.example/now' for realtimePostURL");
}

TEST_F(HTTPSPostBackendConfigurationTest, PostURLOfTheUserDefaultsWinsOverTheStorebag) {
  setDefault("httpsPostURL", "https://a.example/post");
  const auto backend = make(reportingClient());
  EXPECT_FALSE(backend->updatePostLink({{"post_url", "https://b.example/post"}}));
  EXPECT_EQ(backend->postURL(), "https://a.example/post");
  // The realtime URL has no default of its own, so it follows the batch URL in force.
  expectDefaultLine(
      "HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL 'https://a.example/post'");
}

TEST_F(HTTPSPostBackendConfigurationTest, PostURLSetToNothingLetsTheStorebagSupplyOne) {
  setDefault("httpsPostURL", "https://a.example/post");
  const auto backend = make(reportingClient());
  backend->setPostURL(std::nullopt);
  EXPECT_TRUE(backend->updatePostLink({{"post_url", "https://b.example/post"}}));
  EXPECT_EQ(backend->postURL(), "https://b.example/post");
}

TEST_F(HTTPSPostBackendConfigurationTest, RealtimeURLOfTheUserDefaultsWinsOverTheStorebag) {
  setDefault("httpsRealtimePostURL", "https://a.example/now");
  const auto backend = make(reportingClient());
  platform_.log.clear();
  EXPECT_TRUE(backend->updatePostLink(
      {{"post_url", "https://b.example/post"}, {"realtime_post_url", "https://b.example/now"}}));
  EXPECT_EQ(platform_.log.linesOf(LogLevel::kDefault),
            std::vector<std::string>{
                "HTTPSPostBackend(updatePostLink): Storebag 'https://b.example/post' for postURL"});
}

TEST_F(HTTPSPostBackendConfigurationTest, StorebagURLsAreTakenAndLogged) {
  const auto backend = make(reportingClient());
  EXPECT_TRUE(backend->updatePostLink({{"post_url", "https://b/p"}, {"realtime_post_url", "https://b/r"}}));
  expectDefaultLine("HTTPSPostBackend(updatePostLink): Storebag 'https://b/p' for postURL");
  expectDefaultLine("HTTPSPostBackend(updatePostLink): Storebag 'https://b/r' for realtimePostURL");
  // An entry without URLs keeps the batch URL but not the realtime one.
  EXPECT_FALSE(backend->updatePostLink({}));
  EXPECT_EQ(backend->postURL(), "https://b/p");
  expectDefaultLine("HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL 'https://b/p'");
}

TEST_F(HTTPSPostBackendConfigurationTest, WithoutAnyURLTheRealtimeURLDefaultsToNone) {
  const auto backend = make(reportingClient());
  EXPECT_FALSE(backend->updatePostLink({{"post_url", 5}, {"realtime_post_url", Array{}}}));
  EXPECT_EQ(backend->postURL(), std::nullopt);
  expectDefaultLine("HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL '(null)'");
}

TEST_F(HTTPSPostBackendConfigurationTest, DisplayURLIsTheProfiles) {
  EXPECT_EQ(makeWithProfile(with(profileOf(reportingClient()), "display_url", "https://show"))->displayURL(),
            "https://show");
  EXPECT_EQ(makeWithProfile(with(profileOf(reportingClient()), "display_url", 5))->displayURL(),
            std::nullopt);
}

// --- which client entry applies --------------------------------------------------

TEST_F(HTTPSPostBackendConfigurationTest, ClientNamesMatchWholeInAnyLetterCase) {
  EXPECT_TRUE(matches("Foo,Bar", nullptr, "bar", "x"));
  EXPECT_FALSE(matches("Foo,Bar", nullptr, "bar ", "x"));
  EXPECT_FALSE(matches("Foo,Bar", nullptr, "foobar", "x"));
  EXPECT_FALSE(matches("Foo, Bar", nullptr, "bar", "x"));
  EXPECT_FALSE(matches("Foo,Bar", nullptr, Value(), "x"));
  EXPECT_FALSE(matches("Foo,Bar", nullptr, 5, "x"));
  EXPECT_TRUE(matches(nullptr, nullptr, Value(), Value()));
}

TEST_F(HTTPSPostBackendConfigurationTest, ServiceNamesMatchByFragmentInAnyLetterCase) {
  EXPECT_TRUE(matches(nullptr, "cam", "any", "RearCamera"));
  EXPECT_TRUE(matches(nullptr, "x,CAM", "any", "RearCamera"));
  EXPECT_FALSE(matches(nullptr, "cam", "any", "Lens"));
  EXPECT_FALSE(matches(nullptr, "cam", "any", Value()));
  EXPECT_FALSE(matches(nullptr, "", "any", "RearCamera"));
}

TEST_F(HTTPSPostBackendConfigurationTest, NoMatchingEntryDisables) {
  EXPECT_EQ(stateOf(with(reportingClient(), "client", "Other")), ZunBackendStateDisabled);
}

TEST_F(HTTPSPostBackendConfigurationTest, FirstMatchingEntryApplies) {
  const Dictionary other = with(reportingClient(), "client", "Other");
  const Dictionary off = with(reportingClient(), "locale_whitelist", Value());
  EXPECT_EQ(stateOfClients({other, reportingClient(), off}, userInfo()), ZunBackendStateEnabled);
  EXPECT_EQ(stateOfClients({other, off, reportingClient()}, userInfo()), ZunBackendStateDisabled);
}

TEST_F(HTTPSPostBackendConfigurationTest, EntryAppliesFromItsVersionOn) {
  const auto backend = make(reportingClient());
  const auto enabled = [&backend](const char* own, Value since) {
    backend->setSelfVersion(own);
    return backend->isFrameworkEnabledForClient({{"enabledSince", std::move(since)}});
  };
  EXPECT_FALSE(enabled("3.0.9", "3.1"));
  EXPECT_TRUE(enabled("3.1.0", "3.1"));
  EXPECT_TRUE(enabled("3.1.0", "3.0.9"));
  EXPECT_FALSE(enabled("3.1.0", "3.1.1"));
  EXPECT_TRUE(enabled("4", "3.9.9"));
  EXPECT_TRUE(enabled("3.1.0", "3.1.0.9"));
  EXPECT_TRUE(enabled("0.0.1", "256.256.256"));  // low 8 bits only
  EXPECT_TRUE(enabled("0.0.0", "words"));
  EXPECT_TRUE(enabled("0.0.0", Value()));
  EXPECT_TRUE(enabled("0.0.0", Array{"9"}));
}

TEST_F(HTTPSPostBackendConfigurationTest, EntryOfALaterVersionIsSkippedForTheNext) {
  const Dictionary later = with(with(reportingClient(), "enabledSince", "99"), "locale_whitelist", Value());
  EXPECT_EQ(stateOfClients({later, reportingClient()}, userInfo()), ZunBackendStateEnabled);
  EXPECT_EQ(stateOfClients({later}, userInfo()), ZunBackendStateDisabled);
}

// --- steps before the gates ------------------------------------------------------

TEST_F(HTTPSPostBackendConfigurationTest, ExpediteSwitchesBatchingWhateverTheVersion) {
  const auto backend = make(with(with(reportingClient(), "expedite", 0), "enabledSince", "99"));
  EXPECT_EQ(backend->updateState(), ZunBackendStateDisabled);
  expectDefaultLine("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=1");
  start(with(reportingClient(), "expedite", 2));
  expectDefaultLine("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=0");
}

TEST_F(HTTPSPostBackendConfigurationTest, OnlyTheFirstMatchingEntrysExpediteCounts) {
  const auto backend = make(reportingClient());
  stateOfClients({reportingClient(), with(reportingClient(), "expedite", 1)}, userInfo());
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDefault)) {
    EXPECT_EQ(line.find("Store bag override"), std::string::npos);
  }
}

TEST_F(HTTPSPostBackendConfigurationTest, WithoutUserInformationItWaits) {
  const auto backend = make(reportingClient());
  backend->setUserInfoDict(std::nullopt);
  EXPECT_EQ(backend->updateState(), ZunBackendStateAwaitingUserInfo);
  backend->setUserInfoDict(Dictionary());
  EXPECT_EQ(backend->updateState(), ZunBackendStateAwaitingUserInfo);
  EXPECT_EQ(backend->state(), ZunBackendStateAwaitingUserInfo);
}

TEST_F(HTTPSPostBackendConfigurationTest, UserInformationNotRequiredEnablesWithTheFirstPostURL) {
  const auto backend = makeWithProfile(Dictionary{
      {"clients",
       Array{Dictionary{{"event_threshold", 5}},
             Dictionary{{"post_url", "https://b/p"}, {"event_threshold", 7}, {"extras_on_internal", 1}},
             Dictionary{{"post_url", "https://c/p"}}}}});
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
  EXPECT_EQ(backend->postURL(), "https://b/p");
  expectDefaultLine("resetBackendStateWithClient: event_threshold set to 7");
  expectDefaultLine("setBackendStateWithClient: extras on internal is set to 1");
}

TEST_F(HTTPSPostBackendConfigurationTest, UserInformationNotRequiredAndNoPostURLResetsTheSettings) {
  const auto backend = makeWithProfile(Dictionary{{"clients", Array{Dictionary{{"event_threshold", 5}}}}});
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
  expectDefaultLine("resetBackendStateWithClient: event_threshold set to 0");
  expectDefaultLine("setBackendStateWithClient: extras on internal is set to 0");
}

TEST_F(HTTPSPostBackendConfigurationTest, UpdateBackendStateDecidesWithoutStoring) {
  const auto backend = make(reportingClient());
  EXPECT_EQ(backend->updateBackendState(), ZunBackendStateEnabled);
  EXPECT_EQ(backend->state(), ZunBackendStateAwaitingUserInfo);
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
  EXPECT_EQ(backend->state(), ZunBackendStateEnabled);
}

// --- gates -----------------------------------------------------------------------

TEST_F(HTTPSPostBackendConfigurationTest, UserWithoutDiagnosticsDisables) {
  setDiagnosticSubmission(false);
  EXPECT_EQ(stateOf(reportingClient()), ZunBackendStateDisabled);
  expectDefaultLine("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: 0.");
  EXPECT_EQ(stateOf(with(reportingClient(), "override_dnu", 2)), ZunBackendStateDisabled);
  expectDefaultLine("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: 2.");
}

TEST_F(HTTPSPostBackendConfigurationTest, OverrideOfOneReportsWhateverTheUsersChoice) {
  setDiagnosticSubmission(false);
  EXPECT_EQ(stateOf(with(reportingClient(), "override_dnu", 1)), ZunBackendStateEnabled);
  setDiagnosticSubmission(true);
  EXPECT_EQ(stateOf(with(reportingClient(), "override_dnu", "1")), ZunBackendStateEnabled);
}

TEST_F(HTTPSPostBackendConfigurationTest, AbsentLocaleListDisablesOnceUserInformationIsRequired) {
  const Dictionary client = with(reportingClient(), "locale_whitelist", Value());
  EXPECT_EQ(stateOf(client), ZunBackendStateDisabled);
  expectDefaultLine("HTTPSPostBackend(updateBackendState): (DE) isn't in country code list (null)");
  const auto backend = make(client);
  backend->setRequireUserInfo(false);
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
}

TEST_F(HTTPSPostBackendConfigurationTest, RegionMustContainAnElementInAnyLetterCase) {
  EXPECT_EQ(stateOf(with(reportingClient(), "locale_whitelist", Array{"FR", "de"})), ZunBackendStateEnabled);
  EXPECT_EQ(stateOf(with(reportingClient(), "locale_whitelist", Array{"FR", "US"})), ZunBackendStateDisabled);
  expectDefaultLine("HTTPSPostBackend(updateBackendState): (DE) isn't in country code list (\"FR\", \"US\")");
}

TEST_F(HTTPSPostBackendConfigurationTest, DeviceWithoutRegionPassesTheLocaleList) {
  platform_.locale.region = std::nullopt;
  EXPECT_EQ(stateOf(reportingClient()), ZunBackendStateEnabled);
  EXPECT_EQ(stateOf(with(reportingClient(), "locale_whitelist", Array{})), ZunBackendStateDisabled);
  expectDefaultLine("HTTPSPostBackend(updateBackendState): ((null)) isn't in country code list ()");
}

TEST_F(HTTPSPostBackendConfigurationTest, ProductFamilyMustContainAnElementOfTheDeviceWhitelist) {
  EXPECT_EQ(stateOf(with(reportingClient(), "device_whitelist", Array{"large"})), ZunBackendStateEnabled);
  EXPECT_EQ(stateOf(with(reportingClient(), "device_whitelist", Array{})), ZunBackendStateEnabled);
  EXPECT_EQ(stateOf(with(reportingClient(), "device_whitelist", Array{"Mini"})), ZunBackendStateDisabled);
  expectDefaultLine(
      "HTTPSPostBackend(updateBackendState): (Pallax Large) isn't in device whitelist (\"Mini\")");
}

TEST_F(HTTPSPostBackendConfigurationTest, HardwareTypeThatContainsABlacklistedElementDisables) {
  EXPECT_EQ(stateOf(with(reportingClient(), "device_blacklist", Array{"Mini"})), ZunBackendStateEnabled);
  EXPECT_EQ(stateOf(with(reportingClient(), "device_blacklist", Array{"pallax12"})), ZunBackendStateDisabled);
  expectDefaultLine(
      "HTTPSPostBackend(updateBackendState): (Pallax12,3) is in device blacklist (\"pallax12\")");
}

TEST_F(HTTPSPostBackendConfigurationTest, UnknownHardwareCountsAsBlacklisted) {
  const auto backend = make(with(reportingClient(), "device_blacklist", Array{"Mini"}));
  backend->setHardwareType(std::nullopt);
  EXPECT_EQ(backend->updateState(), ZunBackendStateDisabled);
  expectDefaultLine("HTTPSPostBackend(updateBackendState): ((null)) is in device blacklist (\"Mini\")");
}

TEST_F(HTTPSPostBackendConfigurationTest, AbsentFiltersDisableWithAnErrorLine) {
  for (const Value& filters : {Value(), Value("remove"), Value(Dictionary{})}) {
    EXPECT_EQ(stateOf(with(reportingClient(), "filters", filters)), ZunBackendStateDisabled);
    expectErrors({"HTTPSPostBackend(updateBackendState): filters are required."});
  }
}

TEST_F(HTTPSPostBackendConfigurationTest, EmptyFiltersDoNotDisable) {
  EXPECT_EQ(stateOf(with(reportingClient(), "filters", Array{})), ZunBackendStateEnabled);
}

TEST_F(HTTPSPostBackendConfigurationTest, EmptyFiltersKeepTheTableThereIs) {
  const auto backend = start(reportingClient());
  backend->createFiltersFromArray({});
  Dictionary record{{"secret", 1}};
  backend->filterEvent(record);
  EXPECT_TRUE(record.empty());
  backend->createFiltersFromArray({Dictionary{{"key", "other"}, {"action", "remove"}}});
  record = {{"secret", 1}};
  backend->filterEvent(record);
  EXPECT_FALSE(record.empty());
}

// --- sampling --------------------------------------------------------------------

TEST_F(HTTPSPostBackendConfigurationTest, SamplingComparesTheDrawWithBothThresholds) {
  EXPECT_EQ(sampled(0.3, {}), ZunBackendStateEnabled);
  EXPECT_EQ(sampled(0.2, {}), ZunBackendStateSampledOut);
  EXPECT_EQ(sampled(0.25, {}), ZunBackendStateSampledOut);
  EXPECT_EQ(sampled(0.2, 0.25), ZunBackendStateDisabled);
  EXPECT_EQ(sampled(0.2, 0.5), ZunBackendStateSampledOut);
  EXPECT_EQ(sampled(1, {}), ZunBackendStateEnabled);
  EXPECT_EQ(sampled("0.3", {}), ZunBackendStateEnabled);
  EXPECT_EQ(sampled(Array{}, {}), ZunBackendStateSampledOut);
  EXPECT_EQ(sampled(std::numeric_limits<double>::quiet_NaN(), {}), ZunBackendStateSampledOut);
}

TEST_F(HTTPSPostBackendConfigurationTest, NoThresholdDisables) {
  EXPECT_EQ(sampled({}, 0.9), ZunBackendStateDisabled);
}

TEST_F(HTTPSPostBackendConfigurationTest, ThresholdOfTheRegionReplacesTheGeneralOneEvenIfThatIsAbsent) {
  const Dictionary client =
      with(with(reportingClient(), "sampling_threshold", Value()), "per_country_sampling_thresholds",
           Array{"noise", Dictionary{{"country", "DE"}, {"threshold", 0}},
                 Dictionary{{"country", Array{"de"}}, {"threshold", 0}},  // letter case counts here
                 Dictionary{{"country", Array{"FR", "DE"}}, {"threshold", 0.755}},
                 Dictionary{{"country", Array{"DE"}}, {"threshold", 0}}});
  EXPECT_EQ(stateOf(client), ZunBackendStateEnabled);
  expectDefaultLine(
      "HTTPSPostBackend(updateBackendState): sampling threshold for DE changed from 0.00 to 0.75");
}

TEST_F(HTTPSPostBackendConfigurationTest, DeviceWithoutRegionHasTheGeneralThreshold) {
  platform_.locale.region = std::nullopt;
  const auto backend = start(with(reportingClient(), "per_country_sampling_thresholds",
                                  Array{Dictionary{{"country", Array{""}}, {"threshold", 0}}}));
  EXPECT_EQ(backend->samplingThreshold(), Value(1));
}

TEST_F(HTTPSPostBackendConfigurationTest, RegionEntryWithoutThresholdTakesTheThresholdAway) {
  const Dictionary client =
      with(with(reportingClient(), "sampling_threshold", 0.5), "per_country_sampling_thresholds",
           Array{Dictionary{{"country", Array{"DE"}}}});
  EXPECT_EQ(stateOf(client), ZunBackendStateDisabled);
  expectDefaultLine(
      "HTTPSPostBackend(updateBackendState): sampling threshold for DE changed from 0.50 to 0.00");
}

TEST_F(HTTPSPostBackendConfigurationTest, OutcomeIsStableWhileThresholdsChange) {
  platform_.random.setNext({2500, 0});
  const auto backend = make(with(reportingClient(), "sampling_threshold", 0.2));
  EXPECT_EQ(backend->updateState(), ZunBackendStateSampledOut);
  EXPECT_EQ(backend->updateState(), ZunBackendStateSampledOut);
  EXPECT_EQ(backend->samplingThreshold(), Value(0.2));
}

// --- settings that come with the entry -------------------------------------------

TEST_F(HTTPSPostBackendConfigurationTest, ChosenEntryIsLoggedWithItsOutcomeAndTakenWhateverTheOutcome) {
  platform_.random.setNext({2500});
  Dictionary client =
      with(with(reportingClient(), "sampling_threshold", 0.2), "event_whitelist", Array{1, 2});
  client.set("event_blacklist", Array{2});
  client.set("extras_on_internal", "3");
  const auto backend = start(client, "httpPostX");
  EXPECT_EQ(backend->state(), ZunBackendStateSampledOut);
  const std::vector<std::string> expected = {
      "resetBackendStateWithClient: event_threshold set to 49",
      "setBackendStateWithClient: extras on internal is set to 3",
      "HTTPSPostBackend(updateBackendState): httpPostX: client found Camera:RearCamera, state=3, "
      "samplingFactor=0.250000",
      "HTTPSPostBackend(updatePostLink): Storebag 'https://127.0.0.1:1/post' for postURL",
      "HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL 'https://127.0.0.1:1/post'",
      "HTTPSPostBackend(updateBackendState): httpPostX: eventWhitelist=(1, 2)",
      "HTTPSPostBackend(updateBackendState): httpPostX: eventBlacklist=(2)"};
  EXPECT_EQ(platform_.log.linesOf(LogLevel::kDefault), expected);
  EXPECT_TRUE(backend->isWhitelistedEvent(1));
  EXPECT_FALSE(backend->isWhitelistedEvent(3));
  EXPECT_TRUE(backend->isBlacklistedEvent(2));
}

TEST_F(HTTPSPostBackendConfigurationTest, MissingNamesAreLoggedAsNull) {
  const auto backend = make(reportingClient());
  backend->setUserInfoDict(Dictionary{{"more", 1}});
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
  expectDefaultLine(
      "HTTPSPostBackend(updateBackendState): httpPost: client found (null):(null), state=2, "
      "samplingFactor=0.000000");
}

TEST_F(HTTPSPostBackendConfigurationTest, EventListsOfOtherTypesKeepTheListsThereWere) {
  Dictionary client = with(reportingClient(), "event_whitelist", 5);
  client.set("event_blacklist", "2");
  const auto backend = start(client);
  EXPECT_TRUE(backend->isWhitelistedEvent(1));
  EXPECT_FALSE(backend->isBlacklistedEvent(2));
}

TEST_F(HTTPSPostBackendConfigurationTest, CustomClientIdMakesAnIdentifierOfClientAndService) {
  services_.program = {1000, 3};
  start(with(reportingClient(), "custom_clientId", false));
  EXPECT_EQ(platform_.defaults.countOfKeys(kReportingSuite, "holder:1000:3:"), 1U);
  EXPECT_TRUE(platform_.defaults.stringForKey(kReportingSuite, "uuid:Camera:RearCamera").has_value());
}

// A list, dictionary or text of another type counts as absent, a number is read as far
// as it goes.
TEST_F(HTTPSPostBackendConfigurationTest, EveryFieldOfAWrongTypeCountsAsAbsentOrIsReadAsFarAsItGoes) {
  const Value wrong[] = {Array{Array{}, Dictionary{}, Value::data("x"), 5},
                         Dictionary{{"a", Array{}}},
                         Value::data(std::string(300, '\xFF')),
                         Date{1e300},
                         std::numeric_limits<double>::infinity(),
                         std::numeric_limits<int64_t>::min(),
                         "\xF0\x9F\x98\x80,,..://",
                         true,
                         ""};
  // The states under each of them, in this order.
  const std::pair<const char*, std::string> expected[] = {{"client", "222222121"},
                                                          {"service", "222222121"},
                                                          {"expedite", "222222222"},
                                                          {"enabledSince", "222222222"},
                                                          {"override_dnu", "222222222"},
                                                          {"locale_whitelist", "111111111"},
                                                          {"device_whitelist", "122222222"},
                                                          {"device_blacklist", "222222222"},
                                                          {"filters", "211111111"},
                                                          {"sampling_threshold", "333323323"},
                                                          {"per_country_sampling_thresholds", "222222222"},
                                                          {"override_sampling", "222222222"},
                                                          {"custom_clientId", "222222222"},
                                                          {"event_threshold", "222222222"},
                                                          {"extras_on_internal", "222222222"},
                                                          {"post_url", "222222222"},
                                                          {"realtime_post_url", "222222222"},
                                                          {"event_whitelist", "222222222"},
                                                          {"event_blacklist", "222222222"},
                                                          {"use_wifi_only", "222222222"}};
  for (const auto& [key, states] : expected) {
    std::string found;
    for (const Value& value : wrong) {
      const auto backend = start(with(reportingClient(), key, value));
      found += std::to_string(backend->state());
      send(*backend, 1);
      backend->flushMessagesWithCompletion(nullptr);
    }
    EXPECT_EQ(found, states) << key;
  }
  // Eight values that are no list of filters.
  expectErrors(std::vector<std::string>(8, "HTTPSPostBackend(updateBackendState): filters are required."));
}

TEST_F(HTTPSPostBackendConfigurationTest, ProfilesAndUserInformationOfWrongTypesCrashNothing) {
  for (const Value& value : {Value(5), Value(Array{}), Value(Dictionary{}), Value::data("x"), Value("")}) {
    EXPECT_EQ(stateOfClients({value, reportingClient()}, userInfo()),
              value.isDictionary() ? ZunBackendStateDisabled : ZunBackendStateEnabled);
    EXPECT_EQ(stateOfClients({reportingClient()}, userInfo(value, value)), ZunBackendStateEnabled);
  }
}

TEST_F(HTTPSPostBackendConfigurationTest, EntriesThatAreNoDictionariesAreSkipped) {
  EXPECT_EQ(stateOfClients({5, "text", Array{}, reportingClient()}, userInfo()), ZunBackendStateEnabled);
  EXPECT_EQ(stateOfClients({5, "text"}, userInfo()), ZunBackendStateDisabled);
}

TEST_F(HTTPSPostBackendConfigurationTest, ListsOfAHundredThousandElementsAreDecidedOn) {
  Array many;
  for (int i = 0; i < 100'000; ++i) many.append("Q" + std::to_string(i));
  Dictionary client = with(reportingClient(), "device_blacklist", many);
  client.set("device_whitelist", [&many] {
    Array list = many;
    list.append("Large");
    return list;
  }());
  client.set("event_blacklist", many);
  EXPECT_EQ(stateOf(client), ZunBackendStateEnabled);
  expectErrors({"log: lines of more than 16384 bytes are cut, and end with their length"});
}

}  // namespace
}  // namespace zun
