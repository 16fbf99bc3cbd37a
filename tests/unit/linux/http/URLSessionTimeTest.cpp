// How long a request may take, whose server is neither dead nor done.

#include "linux/http/ThroughputFloor.h"
#include "unit/linux/http/ClockSkew.h"
#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

constexpr int64_t kMinuteAtTheFloor = 60 << 10;

class URLSessionTimeTest : public URLSessionTest {
 protected:
  void SetUp() override {
    start({.idleTimeout = 1h});  // not what is to be seen here
    server_.answer("/drip", {.ending = TestAnswer::Ending::kDrip, .fillerBytes = 1 << 20});
    server_.answer("/", {.body = "ok"});
  }
  URLRequest dripping(TransferClass transferClass) const {
    URLRequest request = post(server_.url("/drip"), "body");
    request.transferClass = transferClass;
    return request;
  }
  /// The server's next bytes have come, several times.
  void expectToGoOn(const std::string& name) {
    const int before = delegate_->heard(name).dataCalls;
    EXPECT_TRUE(delegate_->waitForData(name, before + 5));
    EXPECT_EQ(delegate_->heard(name).completions, 0);
  }

  ClockSkew clock_;
};

TEST_F(URLSessionTimeTest, PostEndsTenMinutesAfterItsConnectionStands) {
  begin(dripping(TransferClass::kOrdinary), "drip");
  ASSERT_TRUE(delegate_->waitForResponse("drip"));
  clock_.advance(9min + 50s);
  expectToGoOn("drip");
  const int before = delegate_->heard("drip").dataCalls;
  clock_.advance(11s);
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_TRUE(delegate_->heard("drip").failedWith(URLSessionError::kTimedOut));
  EXPECT_LT(delegate_->heard("drip").dataCalls, before + 1000);  // at once, but for what was under way
}

TEST_F(URLSessionTimeTest, TimeInAHostsQueueIsNotCounted) {
  start({.idleTimeout = 1h, .maxConnectionsPerHost = 1});
  begin(dripping(TransferClass::kOrdinary), "drip");
  ASSERT_TRUE(delegate_->waitForResponse("drip"));
  begin(post(server_.url("/"), "body"), "queued");
  clock_.advance(11min);
  ASSERT_TRUE(delegate_->waitForCompletions(2));
  EXPECT_TRUE(delegate_->heard("drip").failedWith(URLSessionError::kTimedOut));
  EXPECT_EQ(delegate_->heard("queued").data, "ok");
}

TEST_F(URLSessionTimeTest, UploadMayTakeLongerButHasToKeepItsPace) {
  begin(dripping(TransferClass::kUpload), "drip");
  ASSERT_TRUE(delegate_->waitForResponse("drip"));
  clock_.advance(11min);  // slow as it is: nothing was asked of its first minute
  expectToGoOn("drip");
  clock_.advance(61s);
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_TRUE(delegate_->heard("drip").failedWith(URLSessionError::kTimedOut));
}

TEST_F(URLSessionTimeTest, ByteNowAndThenIsProgressEnough) {
  start({});
  begin(dripping(TransferClass::kOrdinary), "drip");
  ASSERT_TRUE(delegate_->waitForResponse("drip"));
  for (int i = 0; i < 5; ++i) {
    clock_.advance(50s);
    expectToGoOn("drip");
  }
}

TEST_F(URLSessionTimeTest, SixtySecondsWithoutProgressEndARequest) {
  start({});
  server_.answer("/hang", TestAnswer::ended(TestAnswer::Ending::kNever));
  begin(post(server_.url("/hang"), "body"), "hang");
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_FALSE(get(server_.url("/")).error);  // by now the thread has seen that all was sent
  clock_.advance(55s);
  EXPECT_FALSE(get(server_.url("/")).error);  // wakes the thread
  EXPECT_EQ(delegate_->heard("hang").completions, 0);
  clock_.advance(6s);
  EXPECT_FALSE(get(server_.url("/")).error);
  EXPECT_TRUE(delegate_->waitForEnd("hang"));
  EXPECT_TRUE(delegate_->heard("hang").failedWith(URLSessionError::kTimedOut));
}

TEST_F(URLSessionTimeTest, OwnWholeTimeHoldsInThePlaceOfTheTenMinutes) {
  URLRequest request = dripping(TransferClass::kOrdinary);
  request.wholeTimeout = 20min;
  begin(std::move(request), "drip");
  ASSERT_TRUE(delegate_->waitForResponse("drip"));
  clock_.advance(19min);
  expectToGoOn("drip");
  clock_.advance(61s);
  ASSERT_TRUE(delegate_->waitForCompletions(1));
}

TEST(ThroughputFloorTest, NothingIsAskedOfTheFirstMinute) {
  ThroughputFloor floor;
  floor.begin(ThroughputFloor::TimePoint(0s));
  EXPECT_FALSE(floor.isMissed(ThroughputFloor::TimePoint(60s), 0));
}

TEST(ThroughputFloorTest, EachMinuteAfterTheFirstMovesAKibibyteASecond) {
  ThroughputFloor floor;
  floor.begin(ThroughputFloor::TimePoint(0s));
  int64_t bytes = 1 << 20;  // what moved earlier pays for nothing
  EXPECT_FALSE(floor.isMissed(ThroughputFloor::TimePoint(60s), bytes));
  for (int minute = 2; minute < 30; ++minute) {
    EXPECT_FALSE(floor.isMissed(ThroughputFloor::TimePoint(60s * minute - 1ms), bytes));
    EXPECT_EQ(floor.deadline(), ThroughputFloor::TimePoint(60s * minute));
    bytes += kMinuteAtTheFloor;
    EXPECT_FALSE(floor.isMissed(ThroughputFloor::TimePoint(60s * minute), bytes)) << minute;
  }
  EXPECT_TRUE(floor.isMissed(ThroughputFloor::TimePoint(60s * 30), bytes + kMinuteAtTheFloor - 1));
}

TEST(ThroughputFloorTest, BeforeTheConnectionStandsNothingIsAsked) {
  ThroughputFloor floor;
  EXPECT_FALSE(floor.isMissed(ThroughputFloor::TimePoint(1h), 0));
  EXPECT_EQ(floor.deadline(), ThroughputFloor::TimePoint::max());
}

}  // namespace
}  // namespace zun
