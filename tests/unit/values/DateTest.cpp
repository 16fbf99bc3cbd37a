#include "values/Date.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

TEST(DateTest, SecondsAreCutDownwardsBefore1970Too) {
  EXPECT_EQ(dateDescription({-0.5}), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(dateDescription({0.5}), "1970-01-01 00:00:00 +0000");
}

TEST(DateTest, CalendarReachesFromYearOneToTheLastSecondOf9999) {
  EXPECT_EQ(dateDescription({253402300799.0}), "9999-12-31 23:59:59 +0000");
  EXPECT_EQ(dateDescription({253402300800.0}), "253402300800 seconds since 1970");
  EXPECT_EQ(dateDescription({-62135596800.0}), "0001-01-01 00:00:00 +0000");
  EXPECT_EQ(dateDescription({-62135596801.0}), "-62135596801 seconds since 1970");
}

}  // namespace
}  // namespace zun
