// The agent's cache and what fetches for it, together.

#include "daemon/StorebagCache.h"
#include "unit/storebag/NetworkStorebagFetcherFixture.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

/// Hands on to another fetcher; the test decides what happens before an outcome is noted.
class InterruptedFetcher final : public StorebagFetcher {
 public:
  explicit InterruptedFetcher(StorebagFetcher& fetcher) : fetcher_(fetcher) {}

  std::function<void()> beforeNote;

  StorebagFetchOutcome fetchStorebagForEnvironmentAndClientType(int32_t clientType) override {
    StorebagFetchOutcome outcome = fetcher_.fetchStorebagForEnvironmentAndClientType(clientType);
    if (const auto interrupt = std::exchange(beforeNote, nullptr)) interrupt();
    return outcome;
  }
  void outcomeNoted(std::string_view name, const StorebagFetchOutcome& outcome) override {
    fetcher_.outcomeNoted(name, outcome);
  }
  void cancelFetches() override { fetcher_.cancelFetches(); }
  std::optional<Date> modificationDateOfStorebagFile(std::string_view name) const override {
    return fetcher_.modificationDateOfStorebagFile(name);
  }

 private:
  StorebagFetcher& fetcher_;
};

class StorebagRefreshTest : public NetworkStorebagFetcherTest {
 protected:
  /// The cached one has just expired; the server has a newer one, once the gate is open.
  std::shared_ptr<TestGate> expireWithANewerOneBehindAGate() {
    putInCache("confero", sealed(storebag("1.0")), 3601);
    putFreshness("confero", 3600);
    TestAnswer answer = answerWith(storebag("2.0"), "max-age=3600");
    answer.gate = std::make_shared<TestGate>();
    server_.answer("/confero", answer);
    return answer.gate;
  }
};

// Whatever dates the file system keeps.
TEST_F(StorebagRefreshTest, RefreshThatEndsBeforeItsLookupIsNotedServesTheNextRequest) {
  for (const bool keepsWholeSeconds : {false, true}) {
    platform_.files.keepsWholeSeconds = keepsWholeSeconds;
    const auto gate = expireWithANewerOneBehindAGate();
    const int ended = countEndedRequests();

    InterruptedFetcher fetcher(*fetcher_);
    fetcher.beforeNote = [this, &gate, ended] {
      gate->open();
      waitForEndOfRequests(ended + 1);
      platform_.clock.advance(700ms);
    };
    StorebagCache cache(fetcher, platform_.clock, platform_.log);
    static_cast<void>(cache.storebagForClientType(kConfero));
    EXPECT_EQ(cache.storebagVersionForClientType(kConfero), "1.0");
    static_cast<void>(cache.storebagForClientType(kConfero));
    EXPECT_EQ(cache.storebagVersionForClientType(kConfero), "2.0") << keepsWholeSeconds;
  }
}

TEST_F(StorebagRefreshTest, RefreshThatEndsAfterItsLookupIsNotedServesTheNextRequest) {
  for (const bool keepsWholeSeconds : {false, true}) {
    platform_.files.keepsWholeSeconds = keepsWholeSeconds;
    const auto gate = expireWithANewerOneBehindAGate();
    const int ended = countEndedRequests();

    StorebagCache cache(*fetcher_, platform_.clock, platform_.log);
    static_cast<void>(cache.storebagForClientType(kConfero));
    EXPECT_EQ(cache.storebagVersionForClientType(kConfero), "1.0");
    platform_.clock.advance(300ms);
    gate->open();
    waitForEndOfRequests(ended + 1);
    static_cast<void>(cache.storebagForClientType(kConfero));
    EXPECT_EQ(cache.storebagVersionForClientType(kConfero), "2.0") << keepsWholeSeconds;
    platform_.clock.advance(400ms);
  }
}

}  // namespace
}  // namespace zun
