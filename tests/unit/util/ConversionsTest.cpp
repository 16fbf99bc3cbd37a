#include "util/Conversions.h"

#include <gtest/gtest.h>

#include <limits>

#include "zunreporting/Keys.h"

namespace zun {
namespace {

TEST(ConnectivityUserInfoKeyTest, NamesAreLowerCasedAndJoined) {
  EXPECT_EQ(connectivityUserInfoKey({{zunreporting::kZunReportingUserInfoClientName, "com.Example.App"},
                                     {zunreporting::kZunReportingUserInfoServiceName, "RearCamera"}}),
            "com.example.app:rearcamera");
}

TEST(ConnectivityUserInfoKeyTest, MissingNamesAndNamesOfAnotherTypeAreEmpty) {
  EXPECT_EQ(connectivityUserInfoKey({}), ":");
  EXPECT_EQ(connectivityUserInfoKey({{zunreporting::kZunReportingUserInfoServiceName, "S"}}), ":s");
  EXPECT_EQ(connectivityUserInfoKey({{zunreporting::kZunReportingUserInfoClientName, 5}}), ":");
}

TEST(ConnectivityUserInfoKeyTest, LetterCaseIsIgnoredBeyondASCIIToo) {
  EXPECT_EQ(connectivityUserInfoKey({{zunreporting::kZunReportingUserInfoClientName, "ÜBER"}}), "über:");
}

TEST(ReportingErrorTest, CarriesDomainCodeAndMessage) {
  const Error error = reportingError("no good", 503);
  EXPECT_EQ(error.domain, zunreporting::kZunReportingErrorDomain);
  EXPECT_EQ(error.code, 503);
  EXPECT_EQ(error.description, "no good");
  EXPECT_EQ(reportingError("x").code, -1);
}

TEST(TimeTest, WholeMinutesAreCutTowardZero) {
  EXPECT_EQ(wholeMinutes(119), 60);
  EXPECT_EQ(wholeMinutes(-119), -60);
  EXPECT_EQ(wholeMinutes(59), 0);
  EXPECT_EQ(wholeMinutes(-59), 0);
  EXPECT_EQ(wholeMinutes(120), 120);
  EXPECT_EQ(wholeMinutes(std::numeric_limits<int64_t>::min()) % 60, 0);
}

TEST(FiniteOrMinusOneTest, WhatIsNotFiniteIsMinusOne) {
  EXPECT_EQ(finiteOrMinusOne(2.5), 2.5);
  EXPECT_EQ(finiteOrMinusOne(std::numeric_limits<double>::infinity()), -1.0);
  EXPECT_EQ(finiteOrMinusOne(-std::numeric_limits<double>::infinity()), -1.0);
  EXPECT_EQ(finiteOrMinusOne(std::numeric_limits<double>::quiet_NaN()), -1.0);
}

TEST(DashboardSocketAddressTest, AddressAndPortAreInNetworkOrder) {
  const IPv4SocketAddress expected{{192, 168, 7, 20}, {0x1F, 0x90}};
  EXPECT_EQ(dashboardSocketAddress("192.168.7.20", 8080), expected);
}

TEST(DashboardSocketAddressTest, SixteenCharactersCount) {
  const std::array<uint8_t, 4> whole{127, 0, 0, 1};
  EXPECT_EQ(dashboardSocketAddress("127.000.000.0001", 1).address, whole);
  // The seventeenth would make it no address.
  EXPECT_EQ(dashboardSocketAddress("127.000.000.0001x", 1).address, whole);
}

TEST(DashboardSocketAddressTest, WhatIsNoAddressIsAllOnes) {
  const std::array<uint8_t, 4> allOnes{255, 255, 255, 255};
  for (const char* text : {"", "dashboard.example", "1.2.3.400", "::1"}) {
    EXPECT_EQ(dashboardSocketAddress(text, 1).address, allOnes) << text;
  }
}

}  // namespace
}  // namespace zun
