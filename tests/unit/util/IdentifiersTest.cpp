#include "util/Identifiers.h"

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

TEST(ReportingErrorTest, CarriesDomainCodeAndMessage) {
  const Error error = reportingError("no good", 503);
  EXPECT_EQ(error.domain, zunreporting::kZunReportingErrorDomain);
  EXPECT_EQ(error.code, 503);
  EXPECT_EQ(error.description, "no good");
  EXPECT_EQ(reportingError("x").code, -1);
}

TEST(TimeTest, MicrosecondsAreTheFraction) {
  EXPECT_DOUBLE_EQ(secondsFromTimeValue({1'700'000'000, 250'000}), 1'700'000'000.25);
  EXPECT_DOUBLE_EQ(secondsFromTimeValue({0, 999'999}), 0.999999);
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

TEST(LetterCaseTest, IsIgnoredBeyondASCIIToo) {
  EXPECT_FALSE(containsIgnoringCase("Die GRÖSSE", "größe"));  // one letter is not two
  EXPECT_TRUE(containsIgnoringCase("HÄUSER am See", "äu"));
  EXPECT_TRUE(containsIgnoringCase("Häuser AM", "am"));
  EXPECT_FALSE(containsIgnoringCase("hauser", "äu"));
  EXPECT_TRUE(equalsIgnoringCase("ÜBER", "über"));
  EXPECT_TRUE(equalsIgnoringCase("\u023A", "\u2C65"));
  EXPECT_FALSE(equalsIgnoringCase("über", "uber"));
  EXPECT_FALSE(equalsIgnoringCase("ü", "ö"));
  EXPECT_EQ(connectivityUserInfoKey({{zunreporting::kZunReportingUserInfoClientName, "ÜBER"}}), "über:");
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

TEST(LetterCaseTest, ContainsIgnoresIt) {
  EXPECT_TRUE(containsIgnoringCase("RearCamera", "cam"));
  EXPECT_TRUE(containsIgnoringCase("cam", "CAM"));
  EXPECT_FALSE(containsIgnoringCase("ca", "cam"));
  EXPECT_FALSE(containsIgnoringCase("anything", ""));
  EXPECT_FALSE(containsIgnoringCase("", ""));
}

TEST(LetterCaseTest, EqualsIgnoresIt) {
  EXPECT_TRUE(equalsIgnoringCase("Bar", "bar"));
  EXPECT_TRUE(equalsIgnoringCase("", ""));
  EXPECT_FALSE(equalsIgnoringCase("bar", "bar "));
  EXPECT_FALSE(equalsIgnoringCase("@", "`"));  // 32 apart, but no letters
}

}  // namespace
}  // namespace zun
