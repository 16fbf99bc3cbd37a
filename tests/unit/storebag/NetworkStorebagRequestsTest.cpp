// Which requests are made, how they end, and when what they bring is seen.

#include <fcntl.h>
#include <sys/file.h>

#include <atomic>
#include <thread>

#include "NetworkStorebagFetcherFixture.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

// MARK: - The file that a request brings

TEST_F(NetworkStorebagFetcherTest, FileIsDatedByTheDaemonsClock) {
  server_.answer("/confero", answerWith(storebag("1.0")));
  platform_.clock.advance(123456us);
  const StorebagFetchOutcome outcome = fetch();
  EXPECT_EQ(fetcher_->modificationDateOfStorebagFile("confero"), platform_.clock.now());
  EXPECT_EQ(outcome.fileDate, platform_.clock.now());
  expectErrors({notLoaded("confero")});
}

// Else the note, which is later than the file, would hide it for a whole maximum age.
TEST_F(NetworkStorebagFetcherTest, FileThatCameBeforeItsLookupWasNotedIsDatedAfterTheNote) {
  putInCache("confero", sealed(storebag("1.0")), 3601);
  putFreshness("confero", 3600);
  server_.answer("/confero", answerWith(storebag("2.0")));
  const StorebagFetchOutcome outcome = fetch();
  EXPECT_EQ(outcome.version, "1.0");
  waitForEndOfRequests(1);
  EXPECT_EQ(cached("confero"), sealed(storebag("2.0")));
  platform_.clock.advance(5s);
  fetcher_->outcomeNoted("confero", outcome);
  EXPECT_GT(fetcher_->modificationDateOfStorebagFile("confero"), platform_.clock.now());
}

TEST_F(NetworkStorebagFetcherTest, FileThatCameAfterItsCallerGaveUpIsDatedAfterTheNote) {
  fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_,
                                            {.requestTimeout = 60s, .grace = -60s});  // gives up at once
  TestAnswer answer = answerWith(storebag("1.0"));
  answer.gate = std::make_shared<TestGate>();
  server_.answer("/tessel", answer);
  const StorebagFetchOutcome outcome = fetch(kTessel);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  answer.gate->open();
  waitForEndOfRequests(1);
  platform_.clock.advance(5s);
  fetcher_->outcomeNoted("tessel", outcome);
  EXPECT_GT(fetcher_->modificationDateOfStorebagFile("tessel"), platform_.clock.now());
}

// A later date would have the next request look at the file again for nothing.
TEST_F(NetworkStorebagFetcherTest, NotedOutcomeLeavesTheDateOfTheFileThatItSaw) {
  putInCache("confero", sealed(storebag("1.0")), 10);
  putFreshness("confero", 3600);
  fetcher_->outcomeNoted("confero", fetch());
  EXPECT_EQ(fetcher_->modificationDateOfStorebagFile("confero"), (Date{1'700'000'000 - 10}));

  server_.answer("/tessel", answerWith(storebag("1.0")));
  fetcher_->outcomeNoted("tessel", fetch(kTessel));
  EXPECT_EQ(fetcher_->modificationDateOfStorebagFile("tessel"), (Date{1'700'000'000}));
  expectErrors({notLoaded("tessel")});

  putInCache("tessel", "x", 20);
  std::filesystem::resize_file(cachePath("tessel"), StorebagDiskCache::kMaximumBytes + 1);
  setAge("tessel", 20);
  server_.answer("/tessel", {.status = 404});
  fetcher_->outcomeNoted("tessel", fetch(kTessel));
  EXPECT_EQ(fetcher_->modificationDateOfStorebagFile("tessel"), (Date{1'700'000'000 - 20}));
  expectErrors({notLoaded("tessel", "File too large"), notFetched(kTessel)});
}

// In a process that ends before the next lookup as well: the next one, too, knows nothing of
// the file yet.
TEST_F(NetworkStorebagFetcherTest, BadFileHealsAgainstAServerThatSaysThatNothingChanged) {
  putInCache("confero", "", 100);
  putFreshness("confero", 50);
  const auto gate = std::make_shared<TestGate>();
  server_.handle("/confero", [gate](const TestRequest& request) {
    return request.header("If-Modified-Since") ? TestAnswer{.status = 304, .gate = gate}
                                               : answerWith(storebag("2.0"));
  });
  EXPECT_FALSE(fetch().section);
  expectErrors(
      {"fetchStorebagWithName: propertyListWithData error empty", kMissingSignature, notFetched(kConfero)});
  expectDebugLine(
      fmt::format("fetchNetworkStorebag: Adding 'Last-Modified: {}' to the header", kLastModified));
  waitForEndOfRequests(2);
  fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_);
  EXPECT_EQ(fetch().version, "2.0");
  gate->open();
}

TEST_F(NetworkStorebagFetcherTest, FileThatWasFoundBadIsNotAskedForConditionallyAgain) {
  putInCache("confero", "", 100);
  putFreshness("confero", 50);
  server_.answer("/confero", {.status = 500});
  for (const int requests : {2, 3, 4}) {
    EXPECT_FALSE(fetch().section);
    waitForEndOfRequests(requests);
  }
  EXPECT_EQ(countDebugLines("fetchNetworkStorebag: Storebag Server URL: ", ""), 4);
  EXPECT_EQ(countDebugLines("fetchNetworkStorebag: Adding 'Last-Modified: ", ""), 1);
  platform_.log.takeErrors();
}

TEST_F(NetworkStorebagFetcherTest, FileInTheBadOnesPlaceIsAskedForConditionally) {
  server_.answer("/confero", {.status = 304});
  putInCache("confero", "bad", 100);
  putFreshness("confero", 50);
  EXPECT_FALSE(fetch().section);
  platform_.log.takeErrors();
  waitForEndOfRequests(2);
  putInCache("confero", sealed(storebag("1.0")), 99);
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(3);
  EXPECT_EQ(server_.requests().back().header("If-Modified-Since"), kLastModified);
}

// Else the server says for ever that nothing has changed since the one that was lost.
TEST_F(NetworkStorebagFetcherTest, StorebagThatCouldNotBeSavedIsAskedForAgain) {
  putInCache("confero", sealed(storebag("1.0")), 3601);
  putFreshness("confero", 50);
  server_.handle("/confero", [](const TestRequest& request) {
    TestAnswer answer = answerWith(storebag("2.0"));
    answer.headers[1].second = "Wed, 15 Nov 2023 10:00:00 GMT";
    if (request.header("If-Modified-Since") == answer.headers[1].second) answer = {.status = 304};
    return answer;
  });
  platform_.files.pathWithoutRoom = cachePath("confero");
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(1);
  expectErrors({"saveStorebagToDisk: could not save storebag 'confero' to file '" +
                fileURLOfPath(cachePath("confero")) + "'. Error is 'No space left on device'"});
  platform_.files.pathWithoutRoom.clear();
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(2);
  EXPECT_EQ(fetch().version, "2.0");
  EXPECT_EQ(server_.requests()[0].header("If-Modified-Since"), kLastModified);
}

/// How many descriptors of this process are open on the file.
int descriptorsOn(const std::string& path) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    count += std::filesystem::read_symlink(entry.path(), gone) == path ? 1 : 0;
  }
  return count;
}

TEST_F(NetworkStorebagFetcherTest, LookupsDoNotWaitForAnotherProcessThatHoldsTheDefaults) {
  putInCache("confero", sealed(storebag("1.0")), 3601);
  putFreshness("confero", 3600);
  putInCache("tessel", sealed(storebag("1.0")), 10);
  putFreshness("tessel", 3600);
  server_.answer("/confero", answerWith(storebag("2.0"), "max-age=77"));
  const std::string path =
      platform_.files.resolve("~/Library/Preferences/com.vantix.zunreporting.plist.lock");
  const int held = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  EXPECT_EQ(fetch().version, "1.0");
  waitFor([&path] { return descriptorsOn(path) == 2; });  // the answer is here, and waits to be kept
  for (int lookup = 0; lookup < 3; ++lookup) {
    EXPECT_EQ(fetch(kTessel).version, "1.0");
    const StorebagFetchOutcome before = fetch();
    EXPECT_EQ(before.version, "1.0");
    EXPECT_EQ(before.maxAgeSeconds, 3600U);
  }
  EXPECT_EQ(countEndedRequests(), 0);
  ::close(held);
  waitForEndOfRequests(1);
  const StorebagFetchOutcome after = fetch();
  EXPECT_EQ(after.version, "2.0");
  EXPECT_EQ(after.maxAgeSeconds, 77U);
}

TEST_F(NetworkStorebagFetcherTest, SettingsAreNotLockedWhileAnEnvelopeWaitsForTheDisk) {
  static_cast<void>(getDefault("made"));
  const std::string lock =
      platform_.files.resolve("~/Library/Preferences/com.vantix.zunreporting.plist.lock");
  std::vector<bool> isFree;
  platform_.files.beforeDiskIsWaitedFor = [this, &lock, &isFree](const std::string& path) {
    if (path != cachePath("confero")) return;
    const int other = ::open(lock.c_str(), O_RDWR | O_CLOEXEC);
    isFree.push_back(::flock(other, LOCK_EX | LOCK_NB) == 0);
    ::close(other);
  };
  server_.answer("/confero", answerWith(storebag("1.0")));
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(1);
  EXPECT_EQ(isFree, (std::vector<bool>{true, true}));  // the file's sync and the folder's
  EXPECT_EQ(getDefault("CACHED_confero_max-age"), Value(600));
  expectErrors({notLoaded("confero")});
}

TEST_F(NetworkStorebagFetcherTest, WhatDoesNotVerifyIsNeverWritten) {
  int writes = 0;
  platform_.files.beforeDiskIsWaitedFor = [this, &writes](const std::string& path) {
    writes += path.starts_with(cacheFolder()) ? 1 : 0;
  };
  TestAnswer answer = answerWith(storebag("1.0"));
  answer.body = sealed(storebag("1.0"), foreignKey());
  server_.answer("/tessel", answer);
  EXPECT_FALSE(fetch(kTessel).section);
  waitForEndOfRequests(1);
  EXPECT_EQ(writes, 0);
  EXPECT_EQ(getDefault("CACHED_tessel_max-age"), Value(600));
  platform_.log.takeErrors();
}

TEST_F(NetworkStorebagFetcherTest, WhatAKilledProcessWasWritingIsRemovedAtTheStart) {
  putInCache("confero", sealed(storebag("1.0")), 10);
  putInCache(".zun-a1B2c3", "half of a storebag");
  fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_);
  EXPECT_FALSE(std::filesystem::exists(cachePath(".zun-a1B2c3")));
  EXPECT_TRUE(std::filesystem::exists(cachePath("confero")));
}

// What a request could not carry would end all refreshes once it had been kept.
TEST_F(NetworkStorebagFetcherTest, LastModifiedWithAStrayLineBreakDoesNotEndTheRefreshes) {
  putInCache("confero", sealed(storebag("1.0")), 3601);
  putFreshness("confero", 3600);
  TestAnswer answer = answerWith(storebag("2.0"), "max-age=0");
  answer.headers[1].second = "Tue\rX";
  server_.answer("/confero", answer);
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(1);
  EXPECT_EQ(getDefault("CACHED_confero_Last-Modified"), Value("Tue X"));
  platform_.clock.advance(1s);
  EXPECT_EQ(fetch().version, "2.0");
  waitForEndOfRequests(2);
  ASSERT_EQ(server_.requests().size(), 2U);
  EXPECT_EQ(server_.requests()[1].header("If-Modified-Since"), "Tue X");
}

// MARK: - Requests that are given up

TEST_F(NetworkStorebagFetcherTest, NewServerIsAskedAtOnceAndTheOldOneNoMore) {
  HTTPSTestServer newServer;
  putInCache("confero", sealed(storebag("1.0")), 100);
  TestAnswer held = answerWith(storebag("of the old server"));
  held.gate = std::make_shared<TestGate>();
  server_.answer("/confero", held);
  newServer.answer("/confero", answerWith(storebag("2.0")));
  EXPECT_EQ(fetch().version, "1.0");
  EXPECT_TRUE(server_.waitForRequests(1));
  setDefault("zunreporting_storebag_url", newServer.url(""));
  EXPECT_EQ(fetch().version, "1.0");
  waitForEndOfRequests(2);  // both, while the old server still thinks
  EXPECT_EQ(fetch().version, "2.0");
  EXPECT_EQ(newServer.requests().size(), 1U);
  held.gate->open();
}

TEST_F(NetworkStorebagFetcherTest, LookupThatNeedsAWholeAnswerDoesNotJoinARequestForChanges) {
  putInCache("confero", sealed(storebag("1.0")), 100);
  putFreshness("confero", 50);
  const auto gate = std::make_shared<TestGate>();
  server_.handle("/confero", [gate](const TestRequest& request) {
    TestAnswer answer = answerWith(storebag("2.0"));
    if (request.header("If-Modified-Since")) answer = {.status = 304, .gate = gate};
    return answer;
  });
  EXPECT_EQ(fetch().version, "1.0");
  EXPECT_TRUE(server_.waitForRequests(1));
  std::filesystem::remove(cachePath("confero"));
  EXPECT_EQ(fetch().version, "2.0");
  expectErrors({notLoaded("confero")});
  gate->open();
}

TEST_F(NetworkStorebagFetcherTest, RequestForAWholeAnswerServesThoseWhoAskForChanges) {
  fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_,
                                            {.requestTimeout = 60s, .grace = -60s});  // gives up at once
  TestAnswer held = answerWith(storebag("2.0"));
  held.gate = std::make_shared<TestGate>();
  server_.answer("/tessel", held);
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  putInCache("tessel", sealed(storebag("1.0")), 100);
  putFreshness("tessel", 50);
  EXPECT_EQ(fetch(kTessel).version, "1.0");
  EXPECT_EQ(countDebugLines("fetchNetworkStorebag: Storebag Server URL: ", ""), 1);
  held.gate->open();
  waitForEndOfRequests(1);
  EXPECT_EQ(fetch(kTessel).version, "2.0");
}

TEST_F(NetworkStorebagFetcherTest, AnswerThatIsCancelledBeforeItIsKeptIsNotKept) {
  putInCache("confero", sealed(storebag("1.0")), 100);
  server_.answer("/confero", answerWith(storebag("2.0")));
  const std::string path =
      platform_.files.resolve("~/Library/Preferences/com.vantix.zunreporting.plist.lock");
  const int held = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  EXPECT_EQ(fetch().version, "1.0");
  waitFor([&path] { return descriptorsOn(path) == 2; });
  fetcher_->cancelFetches();
  ::close(held);
  waitForEndOfRequests(1);
  EXPECT_EQ(cached("confero"), sealed(storebag("1.0")));
  EXPECT_TRUE(getDefault("CACHED_confero_max-age").isNone());
}

TEST_F(NetworkStorebagFetcherTest, ServerThatDripsIsGivenUp) {
  fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_,
                                            {.requestTimeout = 60s, .wholeTimeout = 200ms});
  server_.answer("/tessel", {.ending = TestAnswer::Ending::kDrip, .fillerBytes = 1 << 20});
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  expectDefaultLine("fetchNetworkStorebag: Error resolving with lookup server " + urlOf("tessel") +
                    ", sendSynchronousRequest error the request timed out");
}

TEST_F(NetworkStorebagFetcherTest, CancelledFetchesFailAtOnceAndNoneIsMadeAfterwards) {
  fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_, {.requestTimeout = 3600s});
  server_.handleOthers([](const TestRequest&) { return TestAnswer::ended(TestAnswer::Ending::kNever); });
  putInCache("confero", sealed(storebag("1.0")), 100);
  EXPECT_EQ(fetch().version, "1.0");  // and is refreshed
  std::thread waiting([this] { EXPECT_FALSE(fetch(kTessel).section); });
  EXPECT_TRUE(server_.waitForRequests(2));
  fetcher_->cancelFetches();
  waiting.join();
  waitForEndOfRequests(2);
  expectDefaultLine("fetchNetworkStorebag: Error resolving with lookup server " + urlOf("tessel") +
                    ", sendSynchronousRequest error the request was cancelled");
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});

  EXPECT_EQ(fetch().version, "1.0");
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), notFetched(kTessel)});
  EXPECT_EQ(server_.requests().size(), 2U);
}

}  // namespace
}  // namespace zun
