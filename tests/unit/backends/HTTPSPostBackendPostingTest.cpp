#include <limits>

#include "HTTPSPostBackendPostingTest.h"
#include "KeepingHelper.h"
#include "support/Gzip.h"
#include "support/MemoryLimit.h"
#include "util/Compression.h"
#include "values/UUID.h"

namespace zun {
namespace {

// --- body ------------------------------------------------------------------------

TEST_F(HTTPSPostBackendPostingTest, BodyHasTimeIdentifierAndEventsInThisOrder) {
  platform_.clock.setTimeOfDay({1'700'000'123, 250'000});
  const auto backend = start(postingClient());
  const auto json = backend->createMessageForPostAndLogging({Dictionary{{"b", 1}, {"a", "x"}}}, nullptr);
  EXPECT_EQ(json, "{\"postTime\":1700000123.25,\"clientId\":\"" + storedIdentifier() +
                      "\",\"events\":[{\"b\":1,\"a\":\"x\"}]}");
}

TEST_F(HTTPSPostBackendPostingTest, ReadableTextIsTheSameBody) {
  const auto backend = start(postingClient());
  std::optional<std::string> text;
  const auto json = backend->createMessageForPostAndLogging({Dictionary{{"a", 1.5}}}, &text);
  ASSERT_TRUE(json && text);
  EXPECT_NE(text->find('\n'), std::string::npos);
  EXPECT_EQ(*parseJSON(*json), *parseJSON(*text));
}

TEST_F(HTTPSPostBackendPostingTest, MissingIdentifierLeavesOnlyTheTime) {
  const auto backend =
      makeWithProfile(profileOf(Dictionary{{"post_url", "https://x"}, {"extras_on_internal", 1}}));
  backend->setIsInternal(true);
  backend->updateState();
  const Dictionary body = bodyOf(*backend, {Dictionary{{"a", 1}}});
  EXPECT_EQ(body.size(), 1U);
  EXPECT_TRUE(body.contains("postTime"));
}

TEST_F(HTTPSPostBackendPostingTest, IdentifierRespectsTheUsersChoiceUnlessOverridden) {
  EXPECT_EQ(bodyOf(*start(postingClient()), {})["clientId"], Value(storedIdentifier()));
  setDiagnosticSubmission(false);
  const auto overriding = start(with(postingClient(), "override_dnu", 1));
  EXPECT_EQ(bodyOf(*overriding, {})["clientId"], Value(storedIdentifier()));
  const auto respecting = makeWithProfile(profileOf(Dictionary{{"post_url", "https://x"}}));
  respecting->updateState();
  EXPECT_NE(bodyOf(*respecting, {})["clientId"], Value(storedIdentifier()));
}

TEST_F(HTTPSPostBackendPostingTest, CustomIdentifierComesFirstButForInternalExtras) {
  const auto backend = start(with(with(postingClient(), "custom_clientId", 1), "extras_on_internal", 1));
  EXPECT_EQ(bodyOf(*backend, {})["clientId"],
            Value(platform_.defaults.stringForKey(kReportingSuite, "uuid:Camera:RearCamera").value()));
  backend->setIsInternal(true);
  EXPECT_EQ(bodyOf(*backend, {})["clientId"], Value("device-1"));
}

TEST_F(HTTPSPostBackendPostingTest, CustomIdentifierComesBeforeThatOfAnOverride) {
  const auto backend = start(with(with(postingClient(), "custom_clientId", 1), "override_dnu", 1));
  EXPECT_EQ(bodyOf(*backend, {})["clientId"],
            Value(platform_.defaults.stringForKey(kReportingSuite, "uuid:Camera:RearCamera").value()));
}

TEST_F(HTTPSPostBackendPostingTest, RecordsCarryOnlyStringsFiniteNumbersAndDatesAsSeconds) {
  const auto backend = start(postingClient());
  const Dictionary record = {{"text", "x"},
                             {"list", Array{1}},
                             {"date", Date{1.5}},
                             {"endless", Date{std::numeric_limits<double>::infinity()}},
                             {"nan", std::numeric_limits<double>::quiet_NaN()},
                             {"flag", true},
                             {"big", std::numeric_limits<uint64_t>::max()},
                             {"bytes", Value::data("ab")},
                             {"nested", Dictionary{{"a", 1}}}};
  const Dictionary body = bodyOf(*backend, {record});
  EXPECT_EQ(Value((*body["events"].array())[0]),
            Value(Dictionary{{"text", "x"},
                             {"date", 1.5},
                             {"endless", -1.0},
                             {"flag", true},
                             {"big", std::numeric_limits<uint64_t>::max()}}));
  const std::string start =
      "HTTPSPostBackend(createMessageForPostAndLogging): Textweave unable to handle key: ";
  expectErrors({start + "list, value: (1)", start + "nan, value: nan", start + "bytes, value: <6162>",
                start + "nested, value: {a = 1}"});
}

TEST_F(HTTPSPostBackendPostingTest, RecordWithANestedDictionaryIsPostedWithoutIt) {
  const auto backend = connected(start(with(postingClient(), "expedite", 1)));
  const auto text =
      backend->sendMessage(message({{"nested", Dictionary{{"a", 1}}}, {"note", "x"}}), kEventTime, 1, 2, 0);
  expectErrors(
      {"HTTPSPostBackend(createMessageForPostAndLogging): Textweave unable to handle key: nested, value: "
       "{a = 1}"});
  EXPECT_EQ(field(eventsOf(text), 0, "note"), Value("x"));
  EXPECT_TRUE(field(eventsOf(text), 0, "nested").isNone());
  EXPECT_EQ(field(eventsOf(inflatedGzip(onlyRequest().body)), 0, "note"), Value("x"));
}

// A client's nested values cost the log a bounded number of lines, however many there are.
TEST_F(HTTPSPostBackendPostingTest, BodyTellsOfTheFirstTwentyKeysRemovedAndHowManyMore) {
  const auto backend = start(postingClient());
  Dictionary many;
  for (int i = 0; i < 15; ++i) many.set("k" + std::to_string(i), Array{i});
  std::optional<std::string> text;
  (void)backend->createMessageForPostAndLogging({many, many}, &text);
  std::vector<std::string> expected;
  for (int i = 0; i < 20; ++i) {
    expected.push_back(
        fmt::format("HTTPSPostBackend(createMessageForPostAndLogging): Textweave unable to handle key: k{0}, "
                    "value: ({0})",
                    i % 15));
  }
  expected.emplace_back(
      "HTTPSPostBackend(createMessageForPostAndLogging): removed 10 more such keys from this post");
  expectErrors(expected);
  const Array events = eventsOf(text);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_TRUE(events[0].dictionary()->empty());
  EXPECT_TRUE(events[1].dictionary()->empty());
}

TEST_F(HTTPSPostBackendPostingTest, BodyTellsOfTwentyKeysOneByOneAndOfNoMore) {
  const auto backend = start(postingClient());
  Dictionary many;
  for (int i = 0; i < 20; ++i) many.set("k" + std::to_string(i), Array{i});
  (void)backend->createMessageForPostAndLogging({many}, nullptr);
  EXPECT_EQ(platform_.log.takeErrors().size(), 20U);
}

TEST_F(HTTPSPostBackendPostingTest, SixtyFiveThousandKeysOfWrongTypesCostTheirMessageOnly) {
  const auto backend = start(with(postingClient(), "expedite", 1));
  Dictionary payload;
  for (int i = 0; i < 65'000; ++i) payload.set("k" + std::to_string(i), Dictionary{{"a", i}});
  const auto text = backend->sendMessage(message(payload), kEventTime, 1, 2, 0);
  EXPECT_EQ(eventsOf(text).size(), 1U);
  EXPECT_EQ(platform_.log.takeErrors().size(), 21U);
}

TEST_F(HTTPSPostBackendPostingTest, PostThatMemoryCannotHoldCostsItsEventsOnly) {
  if (!MemoryLimit::kIsPossible) GTEST_SKIP();
  const auto backend = start(with(postingClient(), "expedite", 1));
  const Value large(std::string(size_t{16} << 20, 'x'));
  Dictionary payload;
  for (int i = 0; i < 64; ++i) payload.set("k" + std::to_string(i), large);
  {
    const MemoryLimit limit(size_t{256} << 20);
    EXPECT_EQ(backend->sendMessage(message(payload), kEventTime, 1, 2, 0), std::nullopt);
  }
  expectErrors(
      {"HTTPSPostBackend(createMessageForPostAndLogging): httpPost: no memory for a post of 1 events"});
  EXPECT_TRUE(send(*backend, 1).has_value());
}

TEST_F(HTTPSPostBackendPostingTest, TextMayBeLoggedWhereTheUserLetsDataOutAndNobodyOverrode) {
  EXPECT_TRUE(givesReadableText(*start(postingClient())));
  EXPECT_FALSE(givesReadableText(*start(with(postingClient(), "override_dnu", 1))));
  setDiagnosticSubmission(false);
  EXPECT_FALSE(givesReadableText(*start(postingClient())));
}

TEST_F(HTTPSPostBackendPostingTest, ForcedLoggingWorksInTheTwoInnerEnvironments) {
  setDefault("forceEventLogging", "YES");
  const auto backend = start(with(postingClient(), "override_dnu", 1));
  for (const auto& [environment, expected] :
       std::vector<std::pair<int, bool>>{{1, true}, {2, true}, {3, false}, {4, false}}) {
    setDefault("environmentType", environment);
    EXPECT_EQ(givesReadableText(*backend), expected) << environment;
  }
}

TEST_F(HTTPSPostBackendPostingTest, ForcedLoggingIsTheBooleanOfAText) {
  setDefault("environmentType", 1);
  for (const auto& [setting, expected] : std::vector<std::pair<Value, bool>>{{"YES", true},
                                                                             {"yes", true},
                                                                             {"1", true},
                                                                             {1, true},
                                                                             {true, true},
                                                                             {"NO", false},
                                                                             {"0", false},
                                                                             {false, false},
                                                                             {Array{"YES"}, false}}) {
    setDefault("forceEventLogging", setting);
    EXPECT_EQ(givesReadableText(*start(with(postingClient(), "override_dnu", 1))), expected)
        << setting.description();
  }
}

// --- request ---------------------------------------------------------------------

TEST_F(HTTPSPostBackendPostingTest, HeadersComeInTheirOrderWithTheirValues) {
  const auto backend = connectedBackend();
  backend->setIsInternal(true);
  backend->setDigestKey("key");
  send(*backend, 4, 1);
  const TestRequest request = onlyRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/now");
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"X-ZUN-Client-Name", "Camera"},      {"X-ZUN-Service-Name", "RearCamera"},
      {"X-ZUN-Internal-Build", "1"},        {"User-Agent", "ZunReporting/3.2.1 (Pallax12,3; 12.11)"},
      {"X-ZUN-Client-Version", "3"},        {"X-ZUN-Sender", "BO"},
      {"X-ZUN-Event-Map", "4 9"},           {"Accept", "application/json"},
      {"Content-Type", "application/json"}, {"Content-Length", std::to_string(request.body.size())},
      {"Content-Encoding", "gzip"}};
  std::vector<std::pair<std::string, std::string>> ours;
  for (const auto& header : request.headers) {
    const bool isOurs = std::any_of(expected.begin(), expected.end(),
                                    [&header](const auto& each) { return each.first == header.first; });
    if (isOurs) ours.push_back(header);
  }
  EXPECT_EQ(ours, expected);
  EXPECT_EQ(request.headers.back().first, "X-ZUN-DIGEST");
}

TEST_F(HTTPSPostBackendPostingTest, HeadersOfWhatIsNotThereAreLeftOut) {
  const auto backend = connectedBackend();
  backend->setUserInfoDict(Dictionary{{"more", 1}});
  endOf(post(*backend, "{}"));
  const TestRequest request = onlyRequest();
  for (const char* name : {"X-ZUN-Client-Name", "X-ZUN-Service-Name", "X-ZUN-Internal-Build",
                           "X-ZUN-Event-Map", "Content-Encoding", "X-ZUN-DIGEST"}) {
    EXPECT_TRUE(headers(request, name).empty()) << name;
  }
}

TEST_F(HTTPSPostBackendPostingTest, EmptyNamesAreHeadersWithoutText) {
  const auto backend = connectedBackend();
  backend->setUserInfoDict(userInfo("", ""));
  endOf(post(*backend, "{}"));
  const TestRequest request = onlyRequest();
  EXPECT_EQ(headers(request, "X-ZUN-Client-Name"), std::vector<std::string>{""});
  EXPECT_EQ(headers(request, "X-ZUN-Service-Name"), std::vector<std::string>{""});
}

TEST_F(HTTPSPostBackendPostingTest, BatchPostsMapNoEvent) {
  const auto backend = connectedBackend();
  send(*backend, 4);
  endOf(flush(*backend));
  EXPECT_TRUE(headers(onlyRequest(), "X-ZUN-Event-Map").empty());
}

// Two URLs, one order: what was batched before a realtime event is handed over first.
TEST_F(HTTPSPostBackendPostingTest, ForcedFlushIsPostedBeforeItsRealtimeEvent) {
  const auto keeping = std::make_shared<KeepingHelper>();
  services_.holder = {1000, 7};
  const auto backend = start(postingClient());
  backend->setReportingSessionConnectivityDelegate(keeping);
  send(*backend, 1);
  send(*backend, 2, 1);
  ASSERT_EQ(keeping->requests.size(), 2U);
  EXPECT_EQ(keeping->requests[0].url, server_.url("/post"));
  EXPECT_EQ(field(eventsOf(inflatedGzip(*keeping->requests[0].body)), 0, "_method"), Value(1));
  EXPECT_EQ(keeping->requests[1].url, server_.url("/now"));
  for (const URLRequest& request : keeping->requests) EXPECT_EQ(request.holder.member, 7U);  // whose share
  EXPECT_EQ(field(eventsOf(inflatedGzip(*keeping->requests[1].body)), 0, "_method"), Value(2));
}

TEST_F(HTTPSPostBackendPostingTest, NamesThatAreNoTextCountAsAbsent) {
  const auto backend = connectedBackend();
  backend->setUserInfoDict(userInfo(5, Array{"x"}));
  endOf(post(*backend, "{}"));
  EXPECT_TRUE(headers(onlyRequest(), "X-ZUN-Client-Name").empty());
}

TEST_F(HTTPSPostBackendPostingTest, ControlCharactersOfNamesCannotEndAHeader) {
  const auto backend = connectedBackend();
  backend->setUserInfoDict(userInfo(std::string_view("Cam\r\nX-Evil: 1\0\x7F", 16), "Rear\tB\u00fcro"));
  endOf(post(*backend, "{}"));
  const TestRequest request = onlyRequest();
  EXPECT_EQ(headers(request, "X-ZUN-Client-Name"), std::vector<std::string>{"CamX-Evil: 1"});
  EXPECT_EQ(headers(request, "X-ZUN-Service-Name"), std::vector<std::string>{"RearB\u00fcro"});
  EXPECT_EQ(request.header("X-Evil"), std::nullopt);
}

TEST_F(HTTPSPostBackendPostingTest, UserAgentLeavesOutAMinorNumberOfZeroAndSaysNullForWhatIsUnknown) {
  const auto backend = connectedBackend();
  backend->setSelfVersion("3.0.0");
  backend->setHardwareType(std::nullopt);
  backend->setProductVersion(std::nullopt);
  endOf(post(*backend, "{}"));
  EXPECT_EQ(onlyRequest().header("User-Agent"), "ZunReporting/3.0 ((null); (null))");
}

TEST_F(HTTPSPostBackendPostingTest, BodyThatShrinksIsSentCompressed) {
  const auto backend = connectedBackend();
  const std::string json = "{\"text\":\"" + std::string(989, 'x') + "\"}";
  ASSERT_EQ(json.size(), 1000U);
  endOf(post(*backend, json));
  const TestRequest request = onlyRequest();
  EXPECT_EQ(inflatedGzip(request.body), json);
  EXPECT_LT(request.body.size(), json.size());
  EXPECT_EQ(headers(request, "Content-Encoding"), std::vector<std::string>{"gzip"});
  EXPECT_EQ(headers(request, "Content-Length"),
            std::vector<std::string>{std::to_string(request.body.size())});
}

TEST_F(HTTPSPostBackendPostingTest, TinyBodyThatDoesNotShrinkIsSentAsItIs) {
  const auto backend = connectedBackend();
  endOf(post(*backend, "{\"postTime\":1}"));
  const TestRequest request = onlyRequest();
  EXPECT_EQ(request.body, "{\"postTime\":1}");
  EXPECT_TRUE(headers(request, "Content-Encoding").empty());
  EXPECT_EQ(headers(request, "Content-Length"), std::vector<std::string>{"14"});
}

TEST_F(HTTPSPostBackendPostingTest, BodyThatCompressesToItsOwnLengthIsSentAsItIs) {
  // Digits that repeat at one place only: each one more adds a byte to the body alone.
  std::string json = "0123456789abcdefghijklmnopqrstuvwxyz";
  while (gzipDeflate(json, platform_.log)->size() > json.size()) json += '0';
  ASSERT_EQ(gzipDeflate(json, platform_.log)->size(), json.size());
  const auto backend = connectedBackend();
  endOf(post(*backend, json));
  EXPECT_TRUE(headers(onlyRequest(), "Content-Encoding").empty());
  server_.clearRequests();
  endOf(post(*backend, json + "00"));
  EXPECT_FALSE(headers(onlyRequest(), "Content-Encoding").empty());
}

TEST_F(HTTPSPostBackendPostingTest, DigestIsOverTheUncompressedBodyInGroupsOfFourBytes) {
  const auto backend = connectedBackend();
  backend->setDigestKey("key");
  const std::string json = "The quick brown fox jumps over the lazy dog";
  endOf(post(*backend, json));
  EXPECT_EQ(onlyRequest().header("X-ZUN-DIGEST"), "<de7c9b85 b8b78aa6 bc8a7a36 f70a9070 1c9db4d9>");
  server_.clearRequests();
  const std::string large(5000, 'x');
  endOf(post(*backend, large));
  std::string digits;
  for (const uint8_t byte : hmacSHA1("key", large)) digits += fmt::format("{:02x}", byte);
  std::string sent = onlyRequest().header("X-ZUN-DIGEST").value_or("");
  std::erase_if(sent, [](char c) { return c == ' ' || c == '<' || c == '>'; });
  EXPECT_EQ(sent, digits);
}

TEST_F(HTTPSPostBackendPostingTest, EmptyDigestKeyIsAKey) {
  const auto backend = connectedBackend();
  backend->setDigestKey("");
  endOf(post(*backend, ""));
  EXPECT_EQ(onlyRequest().header("X-ZUN-DIGEST"), "<fbdb1d1b 18aa6c08 324b7d64 b71fb763 70690e1d>");
  expectErrors({"compressDataWithZlibOrGzip: Cannot compress empty NSData"});
}

TEST_F(HTTPSPostBackendPostingTest, OtherDigestAlgorithmsMakeNoHeader) {
  for (const int32_t algorithm : {1, -1, 256}) {
    server_.clearRequests();
    const auto backend = connectedBackend();
    backend->setDigestKey("key");
    backend->setDigestAlgorithm(algorithm);
    endOf(post(*backend, "{}"));
    EXPECT_EQ(onlyRequest().header("X-ZUN-DIGEST"), std::nullopt) << algorithm;
  }
}

TEST_F(HTTPSPostBackendPostingTest, FlagsOneAndThreeGoToTheRealtimeURL) {
  const auto backend = connectedBackend();
  for (const int32_t flag : {0, 1, 2, 3, 5}) endOf(post(*backend, "{}", flag));
  EXPECT_EQ(server_.requestsFor("/now").size(), 2U);
  EXPECT_EQ(server_.requestsFor("/post").size(), 3U);
}

TEST_F(HTTPSPostBackendPostingTest, WiFiOnlyIsTheLowEightBitsOfTheSetting) {
  const auto keeping = std::make_shared<KeepingHelper>();
  for (const auto& [setting, expected] :
       std::vector<std::pair<Value, CellularAccess>>{{Value(), CellularAccess::kAllowed},
                                                     {0, CellularAccess::kAllowed},
                                                     {1, CellularAccess::kForbidden},
                                                     {256, CellularAccess::kAllowed},
                                                     {257, CellularAccess::kForbidden}}) {
    const auto backend = start(with(postingClient(), "use_wifi_only", setting));
    backend->setReportingSessionConnectivityDelegate(keeping);
    backend->postJSONMessage("{}", 0, std::nullopt, std::nullopt, nullptr);
    EXPECT_EQ(keeping->requests.back().cellularAccess, expected) << setting.description();
  }
}

}  // namespace
}  // namespace zun
