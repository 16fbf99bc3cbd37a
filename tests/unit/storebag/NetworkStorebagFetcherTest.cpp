#include <thread>

#include "NetworkStorebagFetcherFixture.h"

namespace zun {
namespace {

// MARK: - Nothing cached

TEST_F(NetworkStorebagFetcherTest, FirstFetchDownloadsVerifiesAndSaves) {
  server_.answer("/confero", answerWith(storebag("1.0")));
  const StorebagFetchOutcome outcome = fetch();
  EXPECT_EQ(environmentOf(outcome), "release");
  EXPECT_EQ(outcome.version, "1.0");
  EXPECT_EQ(outcome.maxAgeSeconds, 600U);
  EXPECT_FALSE(outcome.unchanged);
  EXPECT_EQ(parsePropertyList(cached("confero"))->description(),
            parsePropertyList(sealed(storebag("1.0")))->description());

  ASSERT_EQ(server_.requests().size(), 1U);
  const TestRequest request = server_.requests()[0];
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/confero?version=3.2.1");
  EXPECT_EQ(request.header("If-Modified-Since"), std::nullopt);
  expectErrors({notLoaded("confero")});
  expectDebugLine("fetchNetworkStorebag: Storebag Server URL: " + urlOf("confero"));
  expectDebugLine(
      fmt::format("saveLastLoadedStorebagMetricsWithName: New storebag 'confero' received: maxAge 600, "
                  "Last-Modified '{}'",
                  kLastModified));
  expectDefaultLine("fetchStorebagWithName: storebag 'confero' has been saved to disk cache");
  expectDefaultLine("userDefaultsEnvironment: Environment type 4");
}

TEST_F(NetworkStorebagFetcherTest, VersionInTheURLIsEightWithoutABundleVersion) {
  platform_.bundle.bundleVersion = std::nullopt;
  server_.answer("/confero", answerWith(storebag("1.0")));
  EXPECT_EQ(fetch().version, "1.0");
  EXPECT_EQ(server_.requests()[0].target, "/confero?version=8.0");
  expectErrors({notLoaded("confero")});
}

TEST_F(NetworkStorebagFetcherTest, WithoutAServerConferoEndsWithTheMissingSignature) {
  server_.answer("/confero", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  const StorebagFetchOutcome outcome = fetch();
  EXPECT_FALSE(outcome.section);
  EXPECT_FALSE(outcome.version);
  expectErrors({notLoaded("confero"), kMissingSignature, notFetched(kConfero)});
  expectDefaultLine("fetchNetworkStorebag: Loading default storebag 'confero'");
  EXPECT_FALSE(std::filesystem::exists(cachePath("confero")));
}

TEST_F(NetworkStorebagFetcherTest, WithoutAServerAnyOtherNameEndsAtTheLookup) {
  server_.answer("/tessel", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  bool isLogged = false;
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDefault)) {
    isLogged |= line.starts_with("fetchNetworkStorebag: Error resolving with lookup server " +
                                 urlOf("tessel") + ", sendSynchronousRequest error ") &&
                !line.ends_with("error (null)");
    EXPECT_FALSE(line.starts_with("fetchNetworkStorebag: Loading default storebag")) << line;
  }
  EXPECT_TRUE(isLogged);
  expectDebugLine(
      "fetchNetworkStorebag: storebag 'tessel' does not need update as its content has not changed on the "
      "server");
}

TEST_F(NetworkStorebagFetcherTest, OtherStatusesAreFailuresWithoutAnError) {
  for (const int status : {404, 500, 304, 204}) {
    TestAnswer answer = answerWith(storebag("1.0"));
    answer.status = status;
    if (status == 304 || status == 204) answer.body.clear();
    server_.answer("/tessel", answer);
    EXPECT_FALSE(fetch(kTessel).section) << status;
    expectErrors({notLoaded("tessel"), notFetched(kTessel)});
    EXPECT_TRUE(getDefault("CACHED_tessel_max-age").isNone()) << status;
  }
  EXPECT_EQ(count(LogLevel::kDefault, "fetchNetworkStorebag: Error resolving with lookup server " +
                                          urlOf("tessel") + ", sendSynchronousRequest error (null)"),
            4);
}

TEST_F(NetworkStorebagFetcherTest, ServerThatNeverAnswersIsGivenUp) {
  for (const auto ending : {TestAnswer::Ending::kNever, TestAnswer::Ending::kStallMidAnswer}) {
    TestAnswer answer = answerWith(storebag("1.0"));
    answer.ending = ending;
    server_.answer("/tessel", answer);
    EXPECT_FALSE(fetch(kTessel).section);
    expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  }
}

TEST_F(NetworkStorebagFetcherTest, TruncatedAnswerIsNotUsed) {
  TestAnswer answer = answerWith(storebag("1.0"));
  answer.ending = TestAnswer::Ending::kCloseMidAnswer;
  server_.answer("/tessel", answer);
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  EXPECT_FALSE(std::filesystem::exists(cachePath("tessel")));
}

TEST_F(NetworkStorebagFetcherTest, EndlessAnswerIsNotTaken) {
  TestAnswer answer = answerWith(storebag("1.0"));
  answer.fillerBytes = int64_t{100} << 20;
  server_.answer("/tessel", answer);
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
}

TEST_F(NetworkStorebagFetcherTest, EmptyAnswerIsTreatedAsUnchangedAndHasNoSignature) {
  TestAnswer answer = answerWith(storebag("1.0"));
  answer.body.clear();
  server_.answer("/tessel", answer);
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), "fetchStorebagWithName: propertyListWithData error empty",
                kMissingSignature, notFetched(kTessel)});
  expectDebugLine("fetchNetworkStorebag: received zero-length storebag for 'tessel‘, treat as unchanged");
  EXPECT_EQ(getDefault("CACHED_tessel_max-age"), Value(600));
}

// Verified once when it is saved and once when it is given out.
TEST_F(NetworkStorebagFetcherTest, AnswerThatIsNoPropertyListIsRefusedTwice) {
  TestAnswer answer;
  answer.body = "<html>no storebag</html>";
  server_.answer("/tessel", answer);
  EXPECT_FALSE(fetch(kTessel).section);
  const auto errors = platform_.log.takeErrors();
  EXPECT_EQ(std::count(errors.begin(), errors.end(), kMissingSignature), 2);
  EXPECT_FALSE(std::filesystem::exists(cachePath("tessel")));
}

TEST_F(NetworkStorebagFetcherTest, ServerThatNobodyVouchesForIsNotBelieved) {
  HTTPSTestServer impostor(HTTPSTestServer::Transport::kUntrusted);
  impostor.answer("/tessel", answerWith(storebag("1.0")));
  setDefault("zunreporting_storebag_url", impostor.url(""));
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  EXPECT_TRUE(impostor.requests().empty());
}

TEST_F(NetworkStorebagFetcherTest, WithoutASigningKeyNothingIsSavedOrGivenOut) {
  server_.answer("/tessel", answerWith(storebag("1.0")));
  platform_.bundle.resources.clear();
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  EXPECT_FALSE(std::filesystem::exists(cachePath("tessel")));
}

TEST_F(NetworkStorebagFetcherTest, CacheThatCannotBeWrittenDoesNotStopTheDownload) {
  std::filesystem::create_directories(std::filesystem::path(cacheFolder()).parent_path());
  std::ofstream(cacheFolder()) << "a file in the way";
  server_.answer("/confero", answerWith(storebag("1.0")));
  EXPECT_EQ(fetch().version, "1.0");
  expectErrors({notLoaded("confero", "Not a directory"),
                "saveStorebagToDisk: could not save storebag 'confero' to file '" +
                    fileURLOfPath(cachePath("confero")) + "'. Error is 'Not a directory'"});
}

TEST_F(NetworkStorebagFetcherTest, RedirectedDownloadIsTakenWhereItLeads) {
  server_.answer("/confero", TestAnswer::redirect(server_.url("/elsewhere")));
  server_.answer("/elsewhere", answerWith(storebag("1.0")));
  EXPECT_EQ(fetch().version, "1.0");
  expectErrors({notLoaded("confero")});
}

// MARK: - A cached file

TEST_F(NetworkStorebagFetcherTest, ExpiredFileIsUsedAndRefreshedWithItsLastModified) {
  putInCache("confero", sealed(storebag("1.0")), 3601);
  putFreshness("confero", 3600);
  server_.handle("/confero", [](const TestRequest& request) {
    TestAnswer answer = answerWith(storebag("2.0"));
    if (request.header("If-Modified-Since") == kLastModified) {
      answer.status = 304;
      answer.body.clear();
    }
    return answer;
  });
  const StorebagFetchOutcome outcome = fetch();
  EXPECT_EQ(outcome.version, "1.0");
  EXPECT_EQ(outcome.maxAgeSeconds, 3600U);
  expectDefaultLine(
      "fetchStorebagWithName: storebag 'confero' loaded from disk cache. Disk cache expired and will be "
      "refreshed");
  waitForEndOfRequests(1);
  ASSERT_EQ(server_.requests().size(), 1U);
  EXPECT_EQ(server_.requests()[0].header("If-Modified-Since"), kLastModified);
  expectDebugLine(
      fmt::format("fetchNetworkStorebag: Adding 'Last-Modified: {}' to the header", kLastModified));
  expectDebugLine(
      "fetchNetworkStorebag: storebag 'confero' does not need update as its content has not changed on the "
      "server");
  EXPECT_EQ(getDefault("CACHED_confero_max-age"), Value(3600));
}

TEST_F(NetworkStorebagFetcherTest, FileOfExactlyItsMaxAgeIsValid) {
  putInCache("confero", sealed(storebag("1.0")), 3600);
  putFreshness("confero", 3600);
  EXPECT_EQ(fetch().version, "1.0");
  expectDefaultLine(
      "fetchStorebagWithName: storebag 'confero' loaded from disk cache. Disk cache is valid and will not be "
      "refreshed");
  platform_.clock.advance(std::chrono::milliseconds(1));
  server_.answer("/confero", answerWith(storebag("2.0")));
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(1);
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(NetworkStorebagFetcherTest, AgeOfAFileFromTheFutureIsItsDistanceFromNow) {
  putInCache("confero", sealed(storebag("1.0")), -3601);
  putFreshness("confero", 3600);
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(1);
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(NetworkStorebagFetcherTest, FileWithoutStoredMaxAgeIsRefreshedOnEveryLookup) {
  putInCache("confero", sealed(storebag("1.0")), 1);
  TestAnswer answer;
  answer.status = 304;
  server_.answer("/confero", answer);
  for (int lookup = 1; lookup <= 3; ++lookup) {
    const StorebagFetchOutcome outcome = fetch();
    EXPECT_EQ(outcome.version, "1.0");
    EXPECT_EQ(outcome.maxAgeSeconds, 0U);
    waitForEndOfRequests(lookup);
    EXPECT_EQ(server_.requests().size(), static_cast<size_t>(lookup));
  }
  EXPECT_EQ(server_.requests()[0].header("If-Modified-Since"), std::nullopt);
}

TEST_F(NetworkStorebagFetcherTest, NegativeMaxAgeIsAlwaysExpired) {
  putInCache("confero", sealed(storebag("1.0")), 0);
  putFreshness("confero", -1);
  EXPECT_EQ(fetch().maxAgeSeconds, 4294967295U);
  waitForEndOfRequests(1);
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(NetworkStorebagFetcherTest, RefreshedFileServesLaterCalls) {
  putInCache("confero", sealed(storebag("1.0")), 3601);
  putFreshness("confero", 3600);
  server_.answer("/confero", answerWith(storebag("2.0"), "max-age=50"));
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(1);
  setAge("confero", 0);
  const StorebagFetchOutcome outcome = fetch();
  EXPECT_EQ(outcome.version, "2.0");
  EXPECT_EQ(outcome.maxAgeSeconds, 50U);
  EXPECT_EQ(server_.requests().size(), 1U);
}

// What the server said with the download that failed to verify is what it is asked next.
TEST_F(NetworkStorebagFetcherTest, DownloadThatDoesNotVerifyLeavesTheFileAndKeepsItsMetrics) {
  const std::string good = sealed(storebag("1.0"));
  putInCache("confero", good, 3601);
  putFreshness("confero", 3600);
  TestAnswer answer = answerWith(storebag("2.0"), "max-age=77");
  answer.body = sealed(storebag("2.0"), foreignKey());
  answer.headers[1].second = "Wed, 15 Nov 2023 10:00:00 GMT";
  server_.answer("/confero", answer);
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(1);
  EXPECT_EQ(cached("confero"), good);
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_TRUE(errors[0].starts_with("fetchStorebagWithName: Signature can not be verified, ")) << errors[0];

  EXPECT_EQ(fetch().maxAgeSeconds, 77U);
  waitForEndOfRequests(2);
  EXPECT_EQ(server_.requests()[1].header("If-Modified-Since"), "Wed, 15 Nov 2023 10:00:00 GMT");
  platform_.log.takeErrors();
}

TEST_F(NetworkStorebagFetcherTest, CorruptFileGivesNothingAndIsNotFetchedSynchronously) {
  putFreshness("confero", 3600);
  putInCache("confero", serializeXMLPropertyList(Dictionary{{"bag", "x"}}), 10);
  EXPECT_FALSE(fetch().section);
  expectErrors({kMissingSignature, notFetched(kConfero)});
  putInCache("confero", sealed(storebag("1.0"), foreignKey()), 10);
  EXPECT_FALSE(fetch().section);
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_TRUE(errors[0].starts_with("fetchStorebagWithName: Signature can not be verified, ")) << errors[0];
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(NetworkStorebagFetcherTest, UnreadableFileIsFetchedAnew) {
  std::filesystem::create_directories(cachePath("tessel"));
  server_.answer("/tessel", answerWith(storebag("1.0")));
  EXPECT_EQ(fetch(kTessel).version, "1.0");
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(errors[0], notLoaded("tessel", "Is a directory"));
  EXPECT_TRUE(errors[1].starts_with("saveStorebagToDisk: could not save storebag 'tessel' to file '"))
      << errors[1];
}

// A slow server may not pile up requests, however often clients ask.
TEST_F(NetworkStorebagFetcherTest, OneRequestPerNameRefreshesAtATime) {
  putInCache("confero", sealed(storebag("1.0")), 100);
  putInCache("tessel", sealed(storebag("1.0")), 100);
  TestAnswer answer;
  answer.status = 304;
  answer.gate = std::make_shared<TestGate>();
  server_.handleOthers([answer](const TestRequest&) { return answer; });
  for (int lookup = 0; lookup < 5; ++lookup) {
    EXPECT_EQ(fetch(kConfero).version, "1.0");
    EXPECT_EQ(fetch(kTessel).version, "1.0");
  }
  EXPECT_TRUE(server_.waitForRequests(2));
  EXPECT_EQ(server_.requestsFor("/confero").size(), 1U);
  EXPECT_EQ(server_.requestsFor("/tessel").size(), 1U);
  answer.gate->open();
  waitForEndOfRequests(2);
  EXPECT_EQ(fetch(kConfero).version, "1.0");
  EXPECT_TRUE(server_.waitForRequests(3));
}

TEST_F(NetworkStorebagFetcherTest, ModificationDateIsTheCacheFiles) {
  EXPECT_EQ(fetcher_->modificationDateOfStorebagFile("confero"), std::nullopt);
  putInCache("confero", "x", 30);
  EXPECT_EQ(fetcher_->modificationDateOfStorebagFile("confero"), (Date{1'700'000'000 - 30}));
}

// MARK: - The fetch client and the server's address

TEST_F(NetworkStorebagFetcherTest, OneFetchClientServesEveryFetch) {
  server_.answer("/confero", answerWith(storebag("1.0")));
  server_.answer("/tessel", answerWith(storebag("1.0")));
  EXPECT_EQ(fetch(kConfero).version, "1.0");
  EXPECT_EQ(fetch(kTessel).version, "1.0");
  expectErrors({notLoaded("confero"), notLoaded("tessel")});
  int activations = 0;
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
    activations += line.starts_with("activate: activating connectivity helper") ? 1 : 0;
  }
  EXPECT_EQ(activations, 1);
}

TEST_F(NetworkStorebagFetcherTest, ServerOfTheDefaultsWinsAndIsReadOnEveryCall) {
  setDefault("zunreporting_storebag_url", "https://first.example");
  EXPECT_EQ(fetcher_->storebagServerURL(), "https://first.example");
  setDefault("zunreporting_storebag_url", "https://second.example");
  EXPECT_EQ(fetcher_->storebagServerURL(), "https://second.example");
  setDefault("zunreporting_storebag_url", Value());
  EXPECT_EQ(fetcher_->storebagServerURL(), "https://storebag.zunreporting.example");
}

TEST_F(NetworkStorebagFetcherTest, InternalBuildsHaveAServerOfTheirOwn) {
  platform_.device.set("ReleaseType", "Internal");
  setDefault("zunreporting_storebag_url", Value());
  EXPECT_EQ(fetcher_->storebagServerURL(), "https://storebag.internal.zunreporting.example");
}

TEST_F(NetworkStorebagFetcherTest, FallbackIsAPlainStorebagWithoutSeed) {
  const auto fallback = parsePropertyList(NetworkStorebagFetcher::fallbackStorebag());
  ASSERT_TRUE(fallback);
  const Dictionary section{{"kodo", Dictionary{{"active", true}}}};
  EXPECT_EQ(*fallback, Value(Dictionary{{"vantix_internal", section},
                                        {"development", section},
                                        {"release", section},
                                        {"version", "1.0.0-Confero-Fallback"},
                                        {"refresh_cycle", 3600}}));
  EXPECT_TRUE(NetworkStorebagFetcher::fallbackStorebag().starts_with("bplist00"));
}

TEST_F(NetworkStorebagFetcherTest, NamesDoNotWaitForEachOther) {
  TestAnswer held = answerWith(storebag("1.0"));
  held.gate = std::make_shared<TestGate>();
  server_.answer("/tessel", held);
  server_.answer("/confero", answerWith(storebag("2.0")));
  StorebagFetchOutcome slow;
  std::thread waiting([this, &slow] { slow = fetch(kTessel); });
  EXPECT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(fetch(kConfero).version, "2.0");  // while the other one waits
  held.gate->open();
  waiting.join();
  EXPECT_EQ(slow.version, "1.0");
  expectErrors({notLoaded("tessel"), notLoaded("confero")});
}

TEST_F(NetworkStorebagFetcherTest, ManyThreadsFetchAndRefreshAtOnce) {
  for (const std::string name : {"tessel", "flumina", "confero", "telvane"}) {
    server_.answer("/" + name, answerWith(storebag(name), "max-age=0"));
  }
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int32_t thread = 0; thread < 8; ++thread) {
    threads.emplace_back([this, thread, &good] {
      for (int round = 0; round < 6; ++round) {
        const auto outcome = fetch(5 + (thread + round) % 4);
        if (outcome.section && outcome.version) ++good;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 48);
  for (const std::string& line : platform_.log.takeErrors()) {
    EXPECT_TRUE(line.starts_with("loadStorebagFromDisk: could not load storebag ")) << line;
  }
}

TEST_F(NetworkStorebagFetcherTest, FetcherMayGoWhileARequestIsUnderWay) {
  putInCache("confero", sealed(storebag("1.0")), 100);
  TestAnswer held = answerWith(storebag("2.0"));
  held.gate = std::make_shared<TestGate>();
  server_.answer("/confero", held);
  EXPECT_EQ(fetch().version, "1.0");
  EXPECT_TRUE(server_.waitForRequests(1));
  fetcher_.reset();
  held.gate->open();
  waitForEndOfRequests(1);
  EXPECT_EQ(cached("confero"), sealed(storebag("1.0")));
}

}  // namespace
}  // namespace zun
