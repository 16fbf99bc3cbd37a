#include "backends/DashboardDatagram.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "values/UTF8.h"

namespace zun {
namespace {

using namespace std::string_literals;

DashboardHeader header() {
  return {.formatMajorVersion = 3,
          .clientType = 7,
          .timestamp = {1000, 123456},
          .sessionID = 0x01020304,
          .clientVersion = 0x0506,
          .method = 0x0708,
          .respCode = 0x090A,
          .deviceIdentifier = "00008030-001C2D223A82802E",
          .eventNumber = 0x0B0C,
          .isReliable = false,
          .isWithoutProfile = false};
}

std::string datagramOf(const DashboardHeader& of, const Dictionary& payload) {
  const auto datagram = DashboardDatagram::make(of, payload);
  return std::string(asText(datagram->bytes()));
}

std::string textOf(const Dictionary& payload) {
  return datagramOf(header(), payload).substr(64);
}

std::string textOfValue(Value value) {
  return textOf(Dictionary{{"k", std::move(value)}});
}

std::string localLog(const DashboardHeader& of, const Dictionary& payload, std::string_view sender = "KF") {
  return DashboardDatagram::make(of, payload)->writeLocalLog(sender);
}

// Every byte against the layout: a server reads it by these offsets.
TEST(DashboardDatagramTest, EachFieldStandsAtItsPlaceBigEndianAndInvertedWhereItIsSo) {
  const std::string expected =
      "\x03"                       // 0: format major version
      "\x07"                       // 1: client type
      "\x01"                       // 2: constant
      "\x1E"                       // 3: 123456 / 4000
      "\x00\x00\x03\xE8"           // 4: seconds
      "\xFE\xFD\xFC\xFB"           // 8: NOT session ID
      "\xFA\xF9"                   // 12: NOT client version
      "\xFF\xB6"                   // 14: NOT length, 73
      "\x07\x08"                   // 16: method
      "\x09\x0A"                   // 18: response code
      "00008030-001C2D223A82802E"  // 20: identifier, filled up with zeros
      "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
      "\x0B\x0C"  // 60: event number
      "\x00\x00"  // 62: flags
      " key=text"s;
  EXPECT_EQ(datagramOf(header(), {{"key", "text"}}), expected);
}

TEST(DashboardDatagramTest, FlagsTellOfReliableModeAndOfAMissingProfile) {
  DashboardHeader of = header();
  EXPECT_EQ(datagramOf(of, {}).substr(62), "\0\0"s);
  of.isReliable = true;
  EXPECT_EQ(datagramOf(of, {}).substr(62), "\0\1"s);
  of.isWithoutProfile = true;
  EXPECT_EQ(datagramOf(of, {}).substr(62), "\0\3"s);
  of.isReliable = false;
  EXPECT_EQ(datagramOf(of, {}).substr(62), "\0\2"s);
}

TEST(DashboardDatagramTest, SubSecondsCountUnitsOfFourMilliseconds) {
  DashboardHeader of = header();
  for (const auto& [microseconds, unit] : {std::pair{0, 0}, {3999, 0}, {4000, 1}, {999'999, 249}}) {
    of.timestamp.microseconds = microseconds;
    EXPECT_EQ(static_cast<uint8_t>(datagramOf(of, {})[3]), unit) << microseconds;
  }
}

TEST(DashboardDatagramTest, SecondsKeepTheirLow32Bits) {
  DashboardHeader of = header();
  of.timestamp.seconds = 0x1'8000'0001;
  EXPECT_EQ(datagramOf(of, {}).substr(4, 4), "\x80\0\0\1"s);
}

TEST(DashboardDatagramTest, FortyBytesOfTheDeviceIdentifierCount) {
  DashboardHeader of = header();
  const std::string identifier = std::string(40, 'i') + "jjj";
  of.deviceIdentifier = identifier;
  EXPECT_EQ(datagramOf(of, {}).substr(20, 42), std::string(40, 'i') + "\x0B\x0C");
  of.deviceIdentifier = {};
  EXPECT_EQ(datagramOf(of, {}).substr(20, 40), std::string(40, '\0'));
}

TEST(DashboardDatagramTest, AnEmptyPayloadIsTheHeaderAlone) {
  const std::string datagram = datagramOf(header(), {});
  EXPECT_EQ(datagram.size(), 64U);
  EXPECT_EQ(datagram.substr(14, 2), "\xFF\xBF");  // NOT 64
}

// Text

TEST(DashboardTextTest, TheShorterValueComesFirst) {
  EXPECT_EQ(textOf({{"b", "xyz"}, {"a", "1"}}), " a=1 b=xyz");
}

TEST(DashboardTextTest, ValuesOfEqualLengthKeepTheirOrder) {
  EXPECT_EQ(textOf({{"c", "33"}, {"b", 22}, {"a", "11"}, {"d", 4}}), " d=4 c=33 b=22 a=11");
}

TEST(DashboardTextTest, StringsAreCountedInUTF16) {
  // Three units against four, though six bytes against four.
  EXPECT_EQ(textOf({{"a", "four"}, {"u", "üöä"}}), " u=üöä a=four");
  EXPECT_EQ(textOf({{"a", "one"}, {"u", "😀"}}), " u=😀 a=one");
}

TEST(DashboardTextTest, TheLengthIsThatBeforeSanitizing) {
  EXPECT_EQ(textOf({{"a", "xyz"}, {"b", "=="}}), " b=\\=\\= a=xyz");
}

TEST(DashboardTextTest, LineFeedsGoAndBackslashesAndEqualsSignsAreMarked) {
  EXPECT_EQ(textOfValue("x=1\n"), " k=x\\=1");
  EXPECT_EQ(textOfValue("a\\b"), " k=a\\\\b");
  EXPECT_EQ(textOfValue("\\="), " k=\\\\\\=");
  EXPECT_EQ(textOfValue("one\ntwo\r\n\nthree"), " k=onetwo\rthree");
}

TEST(DashboardTextTest, NothingIsEmpty) {
  EXPECT_EQ(textOfValue(""), " k=empty");
  EXPECT_EQ(textOfValue("\n\n"), " k=empty");
}

TEST(DashboardTextTest, WhatIsNeitherStringNorNumberIsNull) {
  EXPECT_EQ(textOfValue(Dictionary{{"a", 1}}), " k=null");
  EXPECT_EQ(textOfValue(Dictionary{}), " k=null");
  EXPECT_EQ(textOfValue(Array{1, 2}), " k=null");
  EXPECT_EQ(textOfValue(Value::data("bytes")), " k=null");
  EXPECT_EQ(textOfValue(Date{1.0}), " k=null");
  // Sorted as what it says.
  EXPECT_EQ(textOf({{"a", "fives"}, {"n", Array{}}, {"z", "123"}}), " z=123 n=null a=fives");
}

TEST(DashboardTextTest, NumbersAreInPlainDecimalForm) {
  EXPECT_EQ(textOfValue(0), " k=0");
  EXPECT_EQ(textOfValue(-17), " k=-17");
  EXPECT_EQ(textOfValue(std::numeric_limits<uint64_t>::max()), " k=18446744073709551615");
  EXPECT_EQ(textOfValue(std::numeric_limits<int64_t>::min()), " k=-9223372036854775808");
  EXPECT_EQ(textOfValue(0.1), " k=0.1");
  EXPECT_EQ(textOfValue(182.25), " k=182.25");
  EXPECT_EQ(textOfValue(2.0), " k=2");
}

TEST(DashboardTextTest, BooleansAreTheNumbersOneAndZero) {
  EXPECT_EQ(textOf({{"yes", true}, {"no", false}}), " yes=1 no=0");
}

TEST(DashboardTextTest, KeysAreSentAsTheyAre) {
  EXPECT_EQ(textOf({{"a b=c\\", "1"}, {"", "22"}}), " a b=c\\=1 =22");
}

TEST(DashboardTextTest, TextIsCutAt1023Bytes) {
  // " k=" and 1020 more fit exactly.
  EXPECT_EQ(textOfValue(std::string(1020, 'v')), " k=" + std::string(1020, 'v'));
  EXPECT_EQ(textOfValue(std::string(1021, 'v')), " k=" + std::string(1020, 'v'));
  const std::string datagram = datagramOf(header(), {{"k", std::string(1021, 'v')}});
  EXPECT_EQ(datagram.size(), 1087U);
  EXPECT_EQ(datagram.substr(14, 2), "\xFB\xC0");  // NOT 1087
}

TEST(DashboardTextTest, TheCutIsAtThatByteEvenInsideACharacterOrAMark) {
  EXPECT_EQ(textOfValue(std::string(1019, 'v') + "ü"), " k=" + std::string(1019, 'v') + "\xC3");
  EXPECT_EQ(textOfValue(std::string(1019, 'v') + "="), " k=" + std::string(1019, 'v') + "\\");
}

TEST(DashboardTextTest, EntriesBehindTheCutAreLost) {
  EXPECT_EQ(textOf({{"a", "1"}, {"b", std::string(2000, 'b')}, {"c", std::string(3000, 'c')}}),
            " a=1 b=" + std::string(1016, 'b'));
  EXPECT_EQ(textOf({{std::string(3000, 'k'), "1"}}), " " + std::string(1022, 'k'));
}

TEST(DashboardTextTest, AValueOf100KBIsCut) {
  const std::string large(100'000, '=');
  const std::string text = textOf({{"large", large}, {"small", 1}});
  EXPECT_EQ(text.size(), 1023U);
  EXPECT_TRUE(text.starts_with(" small=1 large=\\=\\=\\="));
}

TEST(DashboardTextTest, TenThousandEntriesAreCut) {
  Dictionary payload;
  for (int i = 0; i < 10'000; ++i) payload.set(std::to_string(i), i);
  const std::string text = textOf(payload);
  EXPECT_EQ(text.size(), 1023U);
  EXPECT_TRUE(text.starts_with(" 0=0 1=1 2=2"));
}

// A server that reads C strings would see nothing behind a zero.
TEST(DashboardTextTest, KeysAndValuesEndAtTheirFirstZero) {
  EXPECT_EQ(textOf({{Value("k\0ey"s), Value("va\0lue"s)}}), " k=va");
  EXPECT_EQ(textOf({{"k", Value("\0value"s)}}), " k=empty");
}

// Local records

TEST(DashboardLocalLogTest, FieldsComeBackFromTheDatagram) {
  DashboardHeader of = header();
  of.sessionID = 77;
  of.clientVersion = 3;
  of.method = 200;
  of.respCode = 9;
  of.eventNumber = 65535;
  EXPECT_EQ(localLog(of, {{"b", "xyz"}, {"a", 1}}),
            "1000.120 00008030-001C2D223A82802E 127.0.0.1 KF     3    77 65535   200     9  a=1 b=xyz");
}

TEST(DashboardLocalLogTest, InvertedFieldsAreInvertedBack) {
  DashboardHeader of = header();
  of.timestamp.seconds = 0xFFFFFFFF;
  of.sessionID = 0xFFFFFFFF;
  of.clientVersion = 0xFFFF;
  EXPECT_EQ(
      localLog(of, {}, "TREVANIC"),
      "4294967295.120 00008030-001C2D223A82802E 127.0.0.1 TREVANIC 65535 4294967295  2828  1800  2314 ");
}

TEST(DashboardLocalLogTest, MillisecondsHaveThreeDigits) {
  DashboardHeader of = header();
  of.timestamp.microseconds = 8'000;
  EXPECT_TRUE(localLog(of, {}).starts_with("1000.008 "));
}

TEST(DashboardLocalLogTest, TheLongestRecordIsWhole) {
  DashboardHeader of = header();
  const std::string identifier(60, 'i');
  of.deviceIdentifier = identifier;
  const std::string record = localLog(of, {{"k", std::string(5000, 'v')}});
  EXPECT_NE(record.find(" " + std::string(40, 'i') + " 127.0.0.1 "), std::string::npos);
  EXPECT_TRUE(record.ends_with("  k=" + std::string(1020, 'v')));
  EXPECT_LT(record.size(), 1152U);
}

// Clients get it as a string, and theirs have to be well-formed.
TEST(DashboardLocalLogTest, ACutCharacterIsReplaced) {
  const std::string record = localLog(header(), {{"k", std::string(1019, 'v') + "ü"}});
  EXPECT_TRUE(isValidUTF8(record));
  EXPECT_TRUE(record.ends_with("v\xEF\xBF\xBD"));
}

// Acknowledgements

TEST(DashboardAcknowledgementTest, TheEventNumberStandsAtOffset60) {
  std::string datagram = datagramOf(header(), {{"k", "v"}});
  const auto number = [](std::string_view text) {
    return acknowledgedEventNumber(std::as_bytes(std::span(text.data(), text.size())));
  };
  EXPECT_EQ(number(datagram), 0x0B0C);
  EXPECT_EQ(number(datagram.substr(0, 62)), 0x0B0C);
  EXPECT_EQ(number(datagram.substr(0, 61)), std::nullopt);
  EXPECT_EQ(number("7"), std::nullopt);
  EXPECT_EQ(number(""), std::nullopt);
}

}  // namespace
}  // namespace zun
