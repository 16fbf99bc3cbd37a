#include "zuncollector/DashboardDatagram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DashboardBytes.h"
#include "values/JSONReader.h"
#include "values/JSONWriter.h"

namespace zun {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

std::string errorOf(const std::string& bytes) {
  const auto datagram = DashboardDatagram::decode(bytes);
  return datagram ? "" : datagram.error();
}

TEST(DashboardDatagramTest, EveryFieldIsReadFromItsPlace) {
  const auto datagram = DashboardDatagram::decode(dashboardBytes());
  ASSERT_TRUE(datagram) << datagram.error();
  EXPECT_EQ(datagram->formatVersion, 3);
  EXPECT_EQ(datagram->clientType, 7);
  EXPECT_EQ(datagram->seconds, 1000U);
  EXPECT_EQ(datagram->milliseconds, 120);
  EXPECT_EQ(datagram->sessionID, 0x01020304U);
  EXPECT_EQ(datagram->clientVersion, 0x0506);
  EXPECT_EQ(datagram->method, 0x090A);
  EXPECT_EQ(datagram->respCode, 0x0B0C);
  EXPECT_EQ(datagram->deviceID, "device-1");
  EXPECT_EQ(datagram->eventNumber, 0x0708);
  EXPECT_EQ(datagram->flags, 1);
  EXPECT_EQ(datagram->text, " a=1");
}

// Zeros are sent as ones: a reader that does not invert shows it here.
TEST(DashboardDatagramTest, InvertedFieldsAreInvertedBack) {
  std::string bytes = dashboardBytes();
  bytes.replace(8, 4, "\xFF\xFF\xFF\xFE", 4);
  bytes.replace(12, 2, "\xFF\xF0", 2);
  const auto datagram = DashboardDatagram::decode(bytes);
  ASSERT_TRUE(datagram) << datagram.error();
  EXPECT_EQ(datagram->sessionID, 1U);
  EXPECT_EQ(datagram->clientVersion, 15);
}

TEST(DashboardDatagramTest, FlagsTellReliableModeAndAMissingProfile) {
  EXPECT_FALSE(DashboardDatagram::decode(dashboardBytes({.flags = 0}))->isReliable());
  EXPECT_TRUE(DashboardDatagram::decode(dashboardBytes({.flags = 1}))->isReliable());
  EXPECT_FALSE(DashboardDatagram::decode(dashboardBytes({.flags = 1}))->isWithoutProfile());
  EXPECT_TRUE(DashboardDatagram::decode(dashboardBytes({.flags = 3}))->isWithoutProfile());
}

TEST(DashboardDatagramTest, DeviceIdentifierMayFillItsFortyBytes) {
  std::string bytes = dashboardBytes();
  bytes.replace(20, 40, std::string(40, 'd'));
  EXPECT_EQ(DashboardDatagram::decode(bytes)->deviceID, std::string(40, 'd'));
}

TEST(DashboardDatagramTest, HeaderAloneIsADatagramWithoutFields) {
  const auto datagram = DashboardDatagram::decode(dashboardBytes({.text = ""}));
  ASSERT_TRUE(datagram) << datagram.error();
  EXPECT_THAT(datagram->fields(), IsEmpty());
}

TEST(DashboardDatagramTest, EveryTruncationIsRefused) {
  const std::string bytes = dashboardBytes();
  for (size_t length = 0; length < bytes.size(); ++length) {
    const std::string error = errorOf(bytes.substr(0, length));
    EXPECT_THAT(error, HasSubstr(length < 64 ? "are no header" : "its header tells 68")) << length;
  }
}

TEST(DashboardDatagramTest, BytesBehindTheEndAreRefused) {
  EXPECT_EQ(errorOf(dashboardBytes() + "x"), "69 bytes have come, its header tells 68");
}

TEST(DashboardDatagramTest, LengthThatIsNotInvertedIsRefused) {
  std::string bytes = dashboardBytes();
  bytes.replace(14, 2, "\x00\x44", 2);
  EXPECT_EQ(errorOf(bytes), "68 bytes have come, its header tells 65467");
}

TEST(DashboardDatagramTest, LongestTextIsTakenAndMayBeCutAndOneByteMoreIsRefused) {
  const std::string longest = " a=" + std::string(1020, 'x');
  const auto datagram = DashboardDatagram::decode(dashboardBytes({.text = longest}));
  ASSERT_TRUE(datagram) << datagram.error();
  EXPECT_TRUE(datagram->mayBeCut());
  const std::string shorter = longest.substr(1);
  EXPECT_FALSE(DashboardDatagram::decode(dashboardBytes({.text = shorter}))->mayBeCut());
  const std::string longer = longest + "x";
  EXPECT_EQ(errorOf(dashboardBytes({.text = longer})), "1088 bytes are too many");
}

TEST(DashboardDatagramTest, FieldsThatNoSenderSetsSoAreRefused) {
  EXPECT_EQ(errorOf(dashboardBytes({.constant = 2})), "the constant 1 is 2");
  EXPECT_EQ(errorOf(dashboardBytes({.subseconds = 249})), "");
  EXPECT_EQ(errorOf(dashboardBytes({.subseconds = 250})), "250 units of 4 ms are more than a second");
}

TEST(DashboardFieldsTest, KeysAndValuesComeInTheirOrder) {
  EXPECT_THAT(dashboardFields(" a=1 b=xyz"), ElementsAre(Pair("a", "1"), Pair("b", "xyz")));
  EXPECT_THAT(dashboardFields(""), IsEmpty());
  EXPECT_THAT(dashboardFields("a=1"), ElementsAre(Pair("a", "1")));
}

TEST(DashboardFieldsTest, EscapesAreResolved) {
  EXPECT_THAT(dashboardFields(R"( a=x\=1 b=c:\\temp\\ c=\\\=)"),
              ElementsAre(Pair("a", "x=1"), Pair("b", R"(c:\temp\)"), Pair("c", R"(\=)")));
}

TEST(DashboardFieldsTest, BackslashThatEscapesNothingStays) {
  EXPECT_THAT(dashboardFields(R"( a=\n b=x\)"), ElementsAre(Pair("a", R"(\n)"), Pair("b", R"(x\)")));
}

TEST(DashboardFieldsTest, WordsWithoutEqualsBelongToTheValueBefore) {
  EXPECT_THAT(dashboardFields(" title=evening  news b=1"),
              ElementsAre(Pair("title", "evening  news"), Pair("b", "1")));
  EXPECT_THAT(dashboardFields(R"( a=x y\=z b=1 )"), ElementsAre(Pair("a", "x y=z"), Pair("b", "1 ")));
}

TEST(DashboardFieldsTest, EqualsInAKeyStaysInTheKey) {
  EXPECT_THAT(dashboardFields(" a=b=c d="), ElementsAre(Pair("a=b", "c"), Pair("d", "")));
}

TEST(DashboardFieldsTest, TextBeforeTheFirstPairIsLeftOut) {
  EXPECT_THAT(dashboardFields(" some words a=1"), ElementsAre(Pair("a", "1")));
  EXPECT_THAT(dashboardFields(" no pair at all"), IsEmpty());
}

TEST(DashboardDatagramTest, RecordIsALineOfJSONWithEveryField) {
  const auto datagram = DashboardDatagram::decode(dashboardBytes({.text = " k=v\xFF\x01 l=2"}));
  ASSERT_TRUE(datagram) << datagram.error();
  const std::string line = writeJSON(datagram->record(), JSONFormat::kCompact);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_EQ(*parseJSON(line), *parseJSON(R"({"formatVersion":3,"clientType":7,"timestamp":1000.12,
      "sessionID":16909060,"clientVersion":1286,"method":2314,"respCode":2828,"deviceID":"device-1",
      "eventNumber":1800,"flags":1,"reliable":true,"withoutProfile":false,"mayBeCut":false,
      "text":" k=v\uFFFD\u0001 l=2","fields":{"k":"v\uFFFD\u0001","l":"2"}})"))
      << line;
}

}  // namespace
}  // namespace zun
