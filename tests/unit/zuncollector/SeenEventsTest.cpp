#include "zuncollector/SeenEvents.h"

#include <gtest/gtest.h>

#include "DashboardBytes.h"

namespace zun {
namespace {

DashboardDatagram event(const DashboardFields& fields = {}) {
  return *DashboardDatagram::decode(dashboardBytes(fields));
}

TEST(SeenEventsTest, ARetransmissionIsKnown) {
  SeenEvents seen;
  EXPECT_FALSE(seen.contains("a", event()));
  seen.add("a", event());
  EXPECT_TRUE(seen.contains("a", event()));
}

// The numbers begin anew after 65,536, and every sender has its own.
TEST(SeenEventsTest, TheSameNumberOfAnotherSenderSessionOrTimeIsNew) {
  SeenEvents seen;
  seen.add("a", event());
  EXPECT_FALSE(seen.contains("b", event()));
  EXPECT_FALSE(seen.contains("a", event({.sessionID = 1})));
  EXPECT_FALSE(seen.contains("a", event({.seconds = 1001})));
  EXPECT_FALSE(seen.contains("a", event({.subseconds = 31})));
  EXPECT_FALSE(seen.contains("a", event({.eventNumber = 1})));
}

TEST(SeenEventsTest, TheOldestIsForgottenFirst) {
  SeenEvents seen(2);
  for (const uint16_t number : {1, 2, 2, 3}) seen.add("a", event({.eventNumber = number}));
  EXPECT_FALSE(seen.contains("a", event({.eventNumber = 1})));
  EXPECT_TRUE(seen.contains("a", event({.eventNumber = 2})));
  EXPECT_TRUE(seen.contains("a", event({.eventNumber = 3})));
}

}  // namespace
}  // namespace zun
