// What the end message tells about the whole daemon.

#include <sys/resource.h>

#include <cstdint>

#include "SessionTest.h"
#include "util/MemoryUse.h"

namespace zun {
namespace {

class SessionHealthReportTest : public SessionTest {
 protected:
  using Sessions = std::vector<std::shared_ptr<ReportingdSession>>;

  std::shared_ptr<ReportingdSession> sessionOfType(int64_t clientType, Dictionary storebag = {}) {
    auto session = world_.makeSession();
    agent_.storebag = std::move(storebag);
    session->setSessionInfo(sessionInfo(1, {{kZunReportingSessionInfoClientType, clientType}}), std::nullopt,
                            {}, false);
    session->startConfigWithCompletionHandler(nullptr);
    return session;
  }
  static Dictionary holding(int64_t bytes) { return {{"test", Dictionary{{"batched", bytes}}}}; }

  static Dictionary report(const ReportingdSession& session, const Sessions& list,
                           const Dictionary& storebags = {}, Dictionary payload = {}) {
    session.addSessionsAccumulatedHealthInfoToPayload(payload, list, storebags);
    return payload;
  }
};

TEST_F(SessionHealthReportTest, TwoLiveSessionsAndTheEndingOneOfOneTypeGiveThree) {
  const auto ending = sessionOfType(7);
  EXPECT_EQ(report(*ending, {sessionOfType(7), sessionOfType(7)})["SessionsCount_confero"], Value(3));
}

TEST_F(SessionHealthReportTest, EndingSessionThatIsStillListedCountsTwice) {
  const auto ending = sessionOfType(7, holding(100));
  const Dictionary payload = report(*ending, {sessionOfType(7), ending, sessionOfType(7)});
  EXPECT_EQ(payload["SessionsCount_confero"], Value(4));
  EXPECT_EQ(payload["BatchSize_confero"], Value(200));
}

TEST_F(SessionHealthReportTest, TypesOfOneNameAreCountedTogether) {
  const auto ending = sessionOfType(7);
  const Dictionary payload = report(*ending, {sessionOfType(11), sessionOfType(5)});
  EXPECT_EQ(payload["SessionsCount_confero"], Value(2));
  EXPECT_EQ(payload["SessionsCount_tessel"], Value(1));
}

TEST_F(SessionHealthReportTest, TypesWithoutANameAreUnknown) {
  for (const int64_t clientType : {4, 26, 0, -1, 1'000'000}) {
    const auto ending = sessionOfType(clientType);
    EXPECT_EQ(report(*ending, {})["SessionsCount_Unknown"], Value(1)) << clientType;
  }
  for (const int64_t clientType : {5, 25}) {
    const auto ending = sessionOfType(clientType);
    EXPECT_FALSE(report(*ending, {}).contains("SessionsCount_Unknown")) << clientType;
  }
}

TEST_F(SessionHealthReportTest, SessionThatWasNeverConfiguredIsUnknown) {
  const auto silent = world_.makeSession();
  EXPECT_EQ(report(*session_, {silent})["SessionsCount_Unknown"], Value(2));
}

TEST_F(SessionHealthReportTest, BatchSizesAreSummedByTypeAndInAll) {
  const auto ending = sessionOfType(5, holding(1000));
  const Dictionary payload =
      report(*ending, {sessionOfType(5, holding(200)), sessionOfType(7, holding(30)), sessionOfType(7)});
  EXPECT_EQ(payload["BatchSize_tessel"], Value(1200));
  EXPECT_EQ(payload["BatchSize_confero"], Value(30));
  EXPECT_EQ(payload["CalculatedMemoryUsage"], Value(1230));
}

TEST_F(SessionHealthReportTest, BatchedEventsSizeIsThatOfAllBackendsAndZeroWithoutAny) {
  EXPECT_EQ(session_->batchedEventsSize(), 0U);
  const auto session = sessionOfType(
      5, {{"one", Dictionary{{"batched", 4'000'000'000}}}, {"two", Dictionary{{"batched", 4'000'000'000}}}});
  EXPECT_EQ(session->batchedEventsSize(), 8'000'000'000U);
}

// What has been gathered so far is read back in 32 bits.
TEST_F(SessionHealthReportTest, SumBeyond32BitsIsCutWhenTheNextSessionIsAdded) {
  const auto large = sessionOfType(5, holding(3'000'000'000));
  EXPECT_EQ(report(*large, {})["BatchSize_tessel"], Value(3'000'000'000));
  const auto ending = sessionOfType(5, holding(1));
  const Dictionary payload = report(*ending, {large});
  EXPECT_EQ(payload["BatchSize_tessel"], Value(static_cast<int32_t>(3'000'000'000) + 1));
  EXPECT_EQ(payload["CalculatedMemoryUsage"], Value(3'000'000'001));
}

TEST_F(SessionHealthReportTest, EmptyStorebagCacheIsTheSizeOfAnEmptyDictionary) {
  const Dictionary payload = report(*session_, {});
  EXPECT_EQ(payload["StorebagsCount"], Value(0));
  EXPECT_EQ(payload["StorebagsSize"], Value(Dictionary().allocationSize()));
}

TEST_F(SessionHealthReportTest, StorebagsAreCountedAndEstimated) {
  const Dictionary storebags = {
      {"confero",
       Dictionary{{"StorebagData", Dictionary{{"a long key of a storebag", "a long text of a storebag"}}}}},
      {"tessel", Dictionary{{"StorebagVersion", "1.0"}}}};
  const Dictionary payload = report(*sessionOfType(5, holding(10)), {}, storebags);
  EXPECT_EQ(payload["StorebagsCount"], Value(2));
  EXPECT_EQ(payload["StorebagsSize"], Value(estimatedObjectSize(storebags)));
  EXPECT_EQ(payload["CalculatedMemoryUsage"], Value(estimatedObjectSize(storebags) + 10));
}

TEST_F(SessionHealthReportTest, ProcessMemoryGrowsWithWhatTheProcessTouches) {
  const auto memory = [this] { return report(*session_, {})["ProcessMemoryUsage"].intValue(); };
  const int64_t before = memory();
  constexpr int64_t kBytes = int64_t{64} << 20;
  const std::string block(kBytes, 'x');
  EXPECT_GE(memory(), before + kBytes / 2);
  EXPECT_EQ(block.back(), 'x');
}

// As when the process has no descriptor left to ask with.
TEST_F(SessionHealthReportTest, ProcessMemoryIsZeroWhereTheSystemDoesNotTell) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const Dictionary payload = report(*session_, {});
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(payload["ProcessMemoryUsage"], Value(0));
}

TEST_F(SessionHealthReportTest, CountOfSessionsIsReadBackIn32Bits) {
  const Dictionary payload = report(*session_, {}, {}, {{"SessionsCount_Unknown", 4294967296 + 6}});
  EXPECT_EQ(payload["SessionsCount_Unknown"], Value(7));
}

TEST_F(SessionHealthReportTest, ReportIsAddedToWhatThePayloadHolds) {
  const Dictionary payload =
      report(*session_, {}, {}, {{"StorebagVersion", "41"}, {"SessionsCount_Unknown", 6}});
  EXPECT_EQ(payload["StorebagVersion"], Value("41"));
  EXPECT_EQ(payload["SessionsCount_Unknown"], Value(7));
}

TEST_F(SessionHealthReportTest, EndMessageReportsTheAgentsSessionsAndStorebags) {
  startWith({{"test", Dictionary{}}});
  const auto other = sessionOfType(7, holding(50));
  const auto test = world_.backends.at("test");
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  start();  // the table of `other` took the name
  const auto own = world_.backends.at("test");
  agent_.onCopyState = [&other] {
    return ReportingAgentState{{other}, Dictionary{{"confero", Dictionary{}}}};
  };
  session_.reset();
  const Dictionary payload = *own->sent.back().message["ClientData"].dictionary();
  EXPECT_EQ(payload["SessionsCount_confero"], Value(1));
  EXPECT_EQ(payload["SessionsCount_tessel"], Value(1));
  EXPECT_EQ(payload["BatchSize_confero"], Value(50));
  EXPECT_EQ(payload["StorebagsCount"], Value(1));
  agent_.onCopyState = nullptr;
}

// --- who tears whom down ---------------------------------------------------------

// The report's snapshot may be all that still holds the next session, whose own report
// holds the one after it, and so on.
TEST_F(SessionHealthReportTest, SessionsThatOnlySnapshotsHoldEndOneAfterTheOtherOnALevelStack) {
  constexpr size_t kSessions = 1000;
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  Sessions chain;
  for (size_t i = 0; i < kSessions; ++i) {
    chain.push_back(world_.makeSession());
    chain.back()->setSessionInfo(sessionInfo(static_cast<int64_t>(i)), std::nullopt, {}, false);
    chain.back()->startConfigWithCompletionHandler(nullptr);
  }
  std::vector<uintptr_t> stackPositions;
  size_t next = 1;
  agent_.onCopyState = [&] {
    const char here = 0;
    stackPositions.push_back(reinterpret_cast<uintptr_t>(&here));
    ReportingAgentState state;
    if (next < kSessions) state.sessions.push_back(std::move(chain[next++]));
    return state;
  };
  platform_.log.clear();
  chain[0].reset();
  agent_.onCopyState = nullptr;

  EXPECT_EQ(stackPositions.size(), kSessions);
  const auto [lowest, highest] = std::minmax_element(stackPositions.begin(), stackPositions.end());
  EXPECT_LT(*highest - *lowest, 4096U);
  for (const int64_t number : {0, 1, 500, 999}) {
    EXPECT_EQ(platform_.log.count(LogLevel::kDebug,
                                  "dealloc: ReportingdSession dealloc: " + std::to_string(number)),
              1);
  }
}

TEST_F(SessionHealthReportTest, SessionThatOnlyTheSnapshotHeldIsTornDownAfterTheOneThatTookIt) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  startWith({{"test", Dictionary{}}});
  auto other = world_.makeSession();
  other->setSessionInfo(sessionInfo(8), std::nullopt, {}, false);
  agent_.onCopyState = [&other] { return ReportingAgentState{{std::exchange(other, nullptr)}, {}}; };
  platform_.log.clear();
  session_.reset();
  agent_.onCopyState = nullptr;
  const auto lines = platform_.log.linesOf(LogLevel::kDebug);
  const auto at = [&lines](const std::string& line) { return std::find(lines.begin(), lines.end(), line); };
  ASSERT_NE(at("dealloc: ReportingdSession dealloc: 8"), lines.end());
  EXPECT_LT(at("ReportingdSession dealloc: incrementing total sessions count for session 7"),
            at("dealloc: ReportingdSession dealloc: 8"));
}

}  // namespace
}  // namespace zun
