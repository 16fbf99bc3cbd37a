#include "daemon/StorebagCache.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "support/BlockedThread.h"
#include "support/Fakes.h"
#include "support/RecordingLog.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

constexpr int32_t kClientType = 7;
constexpr int32_t kConferoToo = 11;
constexpr int32_t kTessel = 5;

/// Answers what the test has queued, and remembers who asked.
class ScriptedFetcher final : public StorebagFetcher {
 public:
  StorebagFetchOutcome fetchStorebagForEnvironmentAndClientType(int32_t clientType) override {
    std::unique_lock lock(mutex_);
    asked_.push_back(clientType);
    changed_.notify_all();
    changed_.wait(lock, [this, clientType] { return !held_.contains(clientType); });
    if (outcomes_.empty()) return {};
    StorebagFetchOutcome outcome = outcomes_.front();
    outcomes_.pop_front();
    return outcome;
  }
  void outcomeNoted(std::string_view name, const StorebagFetchOutcome& outcome) override {
    if (noted_) noted_(name, outcome);
  }
  void cancelFetches() override {}
  std::optional<Date> modificationDateOfStorebagFile(std::string_view name) const override {
    const std::lock_guard lock(mutex_);
    const auto found = diskDates_.find(std::string(name));
    return found == diskDates_.end() ? std::nullopt : std::optional(found->second);
  }

  /// Called when the cache has noted an outcome.
  void onNoted(std::function<void(std::string_view, const StorebagFetchOutcome&)> noted) {
    noted_ = std::move(noted);
  }
  void answerWith(std::deque<StorebagFetchOutcome> outcomes) {
    const std::lock_guard lock(mutex_);
    outcomes_ = std::move(outcomes);
  }
  void setDiskDate(const std::string& name, Date date) {
    const std::lock_guard lock(mutex_);
    diskDates_[name] = date;
  }
  size_t calls() const {
    const std::lock_guard lock(mutex_);
    return asked_.size();
  }
  /// Fetches for `clientType` wait until `release`.
  void hold(int32_t clientType) {
    const std::lock_guard lock(mutex_);
    held_.insert(clientType);
  }
  void release() {
    const std::lock_guard lock(mutex_);
    held_.clear();
    changed_.notify_all();
  }
  void waitForCalls(size_t count) {
    std::unique_lock lock(mutex_);
    ASSERT_TRUE(changed_.wait_for(lock, 60s, [&] { return asked_.size() >= count; }));
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void(std::string_view, const StorebagFetchOutcome&)> noted_;
  std::deque<StorebagFetchOutcome> outcomes_;
  std::vector<int32_t> asked_;
  std::map<std::string, Date> diskDates_;
  std::set<int32_t> held_;
};

StorebagFetchOutcome bag(const std::string& version, uint32_t maxAge) {
  return {.section = Dictionary{{"bag", version}},
          .maxAgeSeconds = maxAge,
          .version = version,
          .unchanged = false};
}

StorebagFetchOutcome failure() {
  return {};
}

class StorebagCacheTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& line : log_.takeErrors()) ADD_FAILURE() << "unexpected error line: " << line;
  }

  std::string bagOf(int32_t clientType) {
    const auto section = cache_.storebagForClientType(clientType);
    return section ? std::string((*section)["bag"].stringValue()) : "none";
  }
  void expectFailedFetches(int count) {
    const std::string line = "fetchAndCacheStorebag: Unable to fetch storebag for client type 7";
    EXPECT_EQ(log_.takeErrors(), std::vector<std::string>(static_cast<size_t>(count), line));
  }

  RecordingLog log_;
  FakeClock clock_;
  ScriptedFetcher fetcher_;
  StorebagCache cache_{fetcher_, clock_, log_};
};

TEST_F(StorebagCacheTest, FirstRequestFetchesAndASecondWithinTheMaximumAgeDoesNot) {
  fetcher_.answerWith({bag("1.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  clock_.advance(59s);
  EXPECT_EQ(bagOf(kClientType), "1.0");
  EXPECT_EQ(fetcher_.calls(), 1u);
  EXPECT_EQ(cache_.storebagVersionForClientType(kClientType), "1.0");
  EXPECT_TRUE(log_.contains(LogLevel::kDebug, "fetchAndCacheStorebag: Fetching storebag for client type 7"));
  EXPECT_TRUE(log_.contains(LogLevel::kDebug, "fetchAndCacheStorebag: Storebag max age: 60 seconds"));
  EXPECT_TRUE(log_.contains(LogLevel::kDebug, "storebagForSession: Cached storebag found for client type 7"));
}

TEST_F(StorebagCacheTest, AnEntryAsOldAsItsMaximumAgeIsFetchedAgain) {
  fetcher_.answerWith({bag("1.0", 60), bag("2.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  clock_.advance(60s);
  EXPECT_EQ(bagOf(kClientType), "2.0");
}

TEST_F(StorebagCacheTest, FailedFirstFetchGivesNoneAndIsRetriedOnlyAfter900Seconds) {
  fetcher_.answerWith({failure(), bag("1.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "none");
  expectFailedFetches(1);
  clock_.advance(899s);
  EXPECT_EQ(bagOf(kClientType), "none");
  EXPECT_EQ(fetcher_.calls(), 1u);
  EXPECT_TRUE(log_.contains(LogLevel::kDefault,
                            "storebagForSession: Not fetching storebag for client type 7 - must wait 900 "
                            "seconds between attempts"));
  clock_.advance(1s);
  EXPECT_EQ(bagOf(kClientType), "1.0");
}

// A server that fails is left alone for fifteen minutes, and clients keep the last good bag.
TEST_F(StorebagCacheTest, FailedRefetchServesLastGoodBagFor900Seconds) {
  fetcher_.answerWith({bag("1.0", 60), failure(), bag("2.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  clock_.advance(61s);
  EXPECT_EQ(bagOf(kClientType), "1.0");  // fetched, failed
  expectFailedFetches(1);
  clock_.advance(899s);
  EXPECT_EQ(bagOf(kClientType), "1.0");  // cooling: no fetch
  EXPECT_EQ(fetcher_.calls(), 2u);
  EXPECT_EQ(cache_.storebagVersionForClientType(kClientType), "1.0");
  clock_.advance(1s);
  EXPECT_EQ(bagOf(kClientType), "2.0");
}

TEST_F(StorebagCacheTest, MaximumAgeOfZeroMakesEveryRequestFetch) {
  fetcher_.answerWith({bag("1.0", 0), bag("2.0", 0), bag("3.0", 0)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  EXPECT_EQ(bagOf(kClientType), "2.0");
  EXPECT_EQ(bagOf(kClientType), "3.0");
}

TEST_F(StorebagCacheTest, NegativeMaximumAgeMakesEveryRequestFetch) {
  fetcher_.answerWith({bag("1.0", static_cast<uint32_t>(-5)), bag("2.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  EXPECT_TRUE(log_.contains(LogLevel::kDebug, "fetchAndCacheStorebag: Storebag max age: -5 seconds"));
  EXPECT_EQ(bagOf(kClientType), "2.0");
}

TEST_F(StorebagCacheTest, DiskFileWrittenAfterTheFetchForcesAFetchOfAFreshEntry) {
  fetcher_.answerWith({bag("1.0", 3600), bag("2.0", 3600)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  fetcher_.setDiskDate("confero", Date{1'700'000'000});  // at the very time of the fetch: not later
  EXPECT_EQ(bagOf(kClientType), "1.0");
  fetcher_.setDiskDate("confero", Date{1'700'000'005});
  clock_.advance(10s);
  EXPECT_EQ(bagOf(kClientType), "2.0");
  EXPECT_TRUE(log_.contains(
      LogLevel::kDefault,
      "storebagForSession: Override maxAge as disk cache for storebag 'confero' was updated: modification "
      "time "
      "'2023-11-14 22:13:25 +0000' is greater than last fetch time '2023-11-14 22:13:20 +0000"));
}

TEST_F(StorebagCacheTest, VersionOfATypeNeverFetchedIsNoneAndStartsNoFetch) {
  EXPECT_EQ(cache_.storebagVersionForClientType(kClientType), std::nullopt);
  EXPECT_EQ(fetcher_.calls(), 0u);
}

TEST_F(StorebagCacheTest, UnchangedCountsAsSuccessAndKeepsTheBag) {
  fetcher_.answerWith({bag("1.0", 60),
                       {.section = {}, .maxAgeSeconds = 60, .version = {}, .unchanged = true},
                       bag("2.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  clock_.advance(60s);
  EXPECT_EQ(bagOf(kClientType), "1.0");
  clock_.advance(59s);
  EXPECT_EQ(bagOf(kClientType), "1.0");
  EXPECT_EQ(fetcher_.calls(), 2u);
  clock_.advance(1s);
  EXPECT_EQ(bagOf(kClientType), "2.0");  // a failure would be cooling
}

TEST_F(StorebagCacheTest, ABagWithoutAVersionRemovesTheFormerVersion) {
  auto withoutVersion = bag("2.0", 60);
  withoutVersion.version = std::nullopt;
  fetcher_.answerWith({bag("1.0", 0), withoutVersion});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  EXPECT_EQ(bagOf(kClientType), "2.0");
  EXPECT_EQ(cache_.storebagVersionForClientType(kClientType), std::nullopt);
}

TEST_F(StorebagCacheTest, ClientTypesOfOneStorebagNameShareAnEntry) {
  fetcher_.answerWith({bag("1.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  EXPECT_EQ(bagOf(kConferoToo), "1.0");
  EXPECT_EQ(fetcher_.calls(), 1u);
}

TEST_F(StorebagCacheTest, UnknownClientTypeIsAnErrorLineAndNoEntry) {
  EXPECT_EQ(bagOf(4), "none");
  EXPECT_EQ(bagOf(26), "none");
  EXPECT_EQ(bagOf(-1), "none");
  EXPECT_EQ(log_.takeErrors(), (std::vector<std::string>{"fetchAndCacheStorebag: clientType 4 is invalid",
                                                         "fetchAndCacheStorebag: clientType 26 is invalid",
                                                         "fetchAndCacheStorebag: clientType -1 is invalid"}));
  EXPECT_EQ(fetcher_.calls(), 0u);
  EXPECT_TRUE(cache_.entries().empty());
}

// A server that failed is left alone, but a file that came another way is there already.
TEST_F(StorebagCacheTest, DiskFileWrittenAfterAFailureEndsTheWaiting) {
  fetcher_.answerWith({failure(), bag("1.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "none");
  expectFailedFetches(1);
  fetcher_.setDiskDate("confero", Date{1'700'000'001});
  clock_.advance(10s);
  EXPECT_EQ(bagOf(kClientType), "1.0");
}

TEST_F(StorebagCacheTest, AgeIsTheDistanceFromTheFetchWhenTheClockIsSetBack) {
  fetcher_.answerWith({bag("1.0", 60), failure(), bag("2.0", 60)});
  EXPECT_EQ(bagOf(kClientType), "1.0");
  clock_.advance(-59s);
  EXPECT_EQ(bagOf(kClientType), "1.0");
  EXPECT_EQ(fetcher_.calls(), 1u);
  clock_.advance(-1s);
  EXPECT_EQ(bagOf(kClientType), "1.0");  // fetched, failed
  expectFailedFetches(1);
  clock_.advance(-899s);
  EXPECT_EQ(bagOf(kClientType), "1.0");  // cooling
  EXPECT_EQ(fetcher_.calls(), 2u);
  clock_.advance(-1s);
  EXPECT_EQ(bagOf(kClientType), "2.0");
}

// What was saved in between can be dated after the note only once that is there.
TEST_F(StorebagCacheTest, FetcherIsToldOnceItsOutcomeHasBeenNoted) {
  std::vector<std::string> heard;
  fetcher_.onNoted([&](std::string_view name, const StorebagFetchOutcome& outcome) {
    heard.push_back(fmt::format("{} {} {}", name, outcome.version.value_or("none"),
                                cache_.entries()[name].dictionary() == nullptr ? "too soon" : "noted"));
  });
  fetcher_.answerWith({bag("1.0", 60), failure()});
  EXPECT_EQ(bagOf(kConferoToo), "1.0");
  EXPECT_EQ(bagOf(kTessel), "none");
  log_.takeErrors();
  EXPECT_EQ(heard, (std::vector<std::string>{"confero 1.0 noted", "tessel none noted"}));
}

TEST_F(StorebagCacheTest, SecondSessionOfAnotherTypeOfTheNameWaitsForTheFirstOnesFetch) {
  fetcher_.answerWith({bag("1.0", 3600), bag("2.0", 3600)});
  fetcher_.hold(kClientType);
  std::thread first([this] { EXPECT_EQ(bagOf(kClientType), "1.0"); });
  fetcher_.waitForCalls(1);
  fetcher_.hold(kConferoToo);
  std::atomic<pid_t> secondThread{0};
  std::thread second([this, &secondThread] {
    secondThread = ::gettid();
    EXPECT_EQ(bagOf(kConferoToo), "1.0");
  });
  while (secondThread == 0) std::this_thread::yield();
  waitUntilBlocked(secondThread);  // at the first one's lock, or else in a fetch of its own
  EXPECT_EQ(fetcher_.calls(), 1u);
  fetcher_.release();
  first.join();
  second.join();
}

TEST_F(StorebagCacheTest, OneNameIsFetchedOnceAtATimeAndOthersDoNotWaitForIt) {
  fetcher_.answerWith({bag("tessel", 3600), bag("confero", 3600)});
  fetcher_.hold(kClientType);
  std::thread first([this] { EXPECT_EQ(bagOf(kClientType), "confero"); });
  fetcher_.waitForCalls(1);
  std::thread second([this] { EXPECT_EQ(bagOf(kConferoToo), "confero"); });

  EXPECT_EQ(bagOf(kTessel), "tessel");  // while the other name's server is slow
  EXPECT_EQ(cache_.storebagVersionForClientType(kClientType), std::nullopt);
  fetcher_.release();
  first.join();
  second.join();
  EXPECT_EQ(fetcher_.calls(), 2u);
}

}  // namespace
}  // namespace zun
