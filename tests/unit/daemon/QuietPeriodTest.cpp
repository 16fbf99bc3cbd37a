#include "daemon/QuietPeriod.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

DaemonActivity busy(uint64_t jobsTaken) {
  return {.isTransactionOpen = true, .jobsTaken = jobsTaken, .jobsUnfinished = 1, .transfersInFlight = 0};
}
DaemonActivity transferring(uint64_t jobsTaken) {
  return {.isTransactionOpen = true, .jobsTaken = jobsTaken, .jobsUnfinished = 0, .transfersInFlight = 1};
}
DaemonActivity quiet(uint64_t jobsTaken) {
  return {.isTransactionOpen = true, .jobsTaken = jobsTaken, .jobsUnfinished = 0, .transfersInFlight = 0};
}

TEST(QuietPeriodTest, EndedTransactionIsEnough) {
  QuietPeriod period;
  DaemonActivity activity = transferring(5);
  activity.isTransactionOpen = false;
  EXPECT_TRUE(period.observe(activity));
}

// What the session's end has queued may still have to count its dashboard.
TEST(QuietPeriodTest, WorkIsWaitedForEvenAfterTheTransactionHasEnded) {
  QuietPeriod period;
  DaemonActivity activity = busy(5);
  activity.isTransactionOpen = false;
  EXPECT_FALSE(period.observe(activity));
  activity.jobsUnfinished = 0;
  EXPECT_TRUE(period.observe(activity));
}

TEST(QuietPeriodTest, DashboardsAreWaitedForWhateverElseHasEnded) {
  for (const bool isTransactionOpen : {false, true}) {
    QuietPeriod period;
    DaemonActivity activity = quiet(5);
    activity.isTransactionOpen = isTransactionOpen;
    activity.dashboards = 1;
    EXPECT_FALSE(period.observe(activity));
    EXPECT_FALSE(period.observe(activity));
    activity.dashboards = 0;
    EXPECT_TRUE(period.observe(activity));
  }
}

TEST(QuietPeriodTest, OneQuietLookIsNotEnoughAndTwoAre) {
  QuietPeriod period;
  EXPECT_FALSE(period.observe(quiet(5)));
  EXPECT_TRUE(period.observe(quiet(5)));
}

TEST(QuietPeriodTest, AJobBetweenTwoQuietLooksStartsAnew) {
  QuietPeriod period;
  EXPECT_FALSE(period.observe(quiet(5)));
  EXPECT_FALSE(period.observe(quiet(6)));
  EXPECT_TRUE(period.observe(quiet(6)));
}

TEST(QuietPeriodTest, WorkAndTransfersAreWaitedFor) {
  QuietPeriod period;
  EXPECT_FALSE(period.observe(busy(5)));
  EXPECT_FALSE(period.observe(transferring(5)));
  EXPECT_FALSE(period.observe(quiet(5)));
  EXPECT_FALSE(period.observe(transferring(5)));
  EXPECT_FALSE(period.observe(quiet(5)));
  EXPECT_TRUE(period.observe(quiet(5)));
}

}  // namespace
}  // namespace zun
