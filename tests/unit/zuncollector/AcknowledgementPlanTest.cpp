#include "zuncollector/AcknowledgementPlan.h"

#include <gtest/gtest.h>

#include "DashboardBytes.h"

namespace zun {
namespace {

// "s" for sent, "c" for corrupted, "-" for dropped.
std::string fates(const AcknowledgementOptions& options, int count) {
  AcknowledgementPlan plan(options);
  std::string all;
  for (int i = 0; i < count; ++i) {
    const AcknowledgementFate fate = plan.next();
    all += fate == AcknowledgementFate::kSend ? 's' : (fate == AcknowledgementFate::kCorrupt ? 'c' : '-');
  }
  return all;
}

TEST(AcknowledgementPlanTest, EverythingIsSentWithoutOptions) {
  EXPECT_EQ(fates({}, 6), "ssssss");
}

TEST(AcknowledgementPlanTest, SilenceSendsNothing) {
  EXPECT_EQ(fates({.silent = true}, 4), "----");
}

TEST(AcknowledgementPlanTest, TheFirstOnesAreLost) {
  EXPECT_EQ(fates({.dropFirst = 2}, 5), "--sss");
}

TEST(AcknowledgementPlanTest, EveryThirdIsLost) {
  EXPECT_EQ(fates({.dropEvery = 3}, 7), "ss-ss-s");
}

TEST(AcknowledgementPlanTest, CorruptOnesFollowTheLostOnes) {
  EXPECT_EQ(fates({.dropFirst = 1, .corruptFirst = 2}, 5), "-ccss");
}

TEST(AcknowledgementPlanTest, ChanceRepeatsWithItsSeed) {
  const std::string first = fates({.loss = 0.5, .seed = 7}, 200);
  EXPECT_EQ(fates({.loss = 0.5, .seed = 7}, 200), first);
  EXPECT_NE(fates({.loss = 0.5, .seed = 8}, 200), first);
  EXPECT_NE(first.find('-'), std::string::npos);
  EXPECT_NE(first.find('s'), std::string::npos);
  EXPECT_EQ(fates({.loss = 1}, 50), std::string(50, '-'));
}

TEST(AcknowledgementTest, ReturnsTheDatagramOrItsBeginning) {
  const std::string datagram = dashboardBytes();
  EXPECT_EQ(acknowledgementOf(datagram, AcknowledgementFate::kSend, {}), datagram);
  EXPECT_EQ(acknowledgementOf(datagram, AcknowledgementFate::kSend, {.bytes = 62}), datagram.substr(0, 62));
  EXPECT_EQ(acknowledgementOf(datagram, AcknowledgementFate::kSend, {.bytes = 5000}), datagram);
}

TEST(AcknowledgementTest, ACorruptOneNamesAnotherEvent) {
  const std::string datagram = dashboardBytes({.eventNumber = 0x0708});
  std::string expected = datagram;
  expected.replace(60, 2, "\xF8\xF7");
  EXPECT_EQ(acknowledgementOf(datagram, AcknowledgementFate::kCorrupt, {}), expected);
  EXPECT_EQ(acknowledgementOf(datagram, AcknowledgementFate::kCorrupt, {.bytes = 61}),
            expected.substr(0, 61));
  EXPECT_EQ(acknowledgementOf(datagram, AcknowledgementFate::kCorrupt, {.bytes = 3}), datagram.substr(0, 3));
}

}  // namespace
}  // namespace zun
