#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "EventLine.h"
#include "LineReader.h"

namespace zun {
namespace {

using ::testing::HasSubstr;

TEST(LineReaderTest, BlankLinesAreSkippedAndCounted) {
  std::istringstream input("one\n\n \t\r\ntwo");
  LineReader lines(input);
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.line(), "one");
  EXPECT_EQ(lines.number(), 1u);
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.line(), "two");
  EXPECT_EQ(lines.number(), 4u);
  EXPECT_FALSE(lines.next());
}

TEST(LineReaderTest, LineThatIsTooLongIsCutAndTheNextOneComes) {
  std::istringstream input(std::string(LineReader::kLongestLine, 'a') + "\n" +
                           std::string(3 * LineReader::kLongestLine, 'b') + "\nshort\n");
  LineReader lines(input);
  ASSERT_TRUE(lines.next());
  EXPECT_FALSE(lines.isTooLong());
  ASSERT_TRUE(lines.next());
  EXPECT_TRUE(lines.isTooLong());
  EXPECT_EQ(lines.line().size(), LineReader::kLongestLine + 1);
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.line(), "short");
}

TEST(EventLineTest, CategoryAndTypeAreEnough) {
  const auto event = eventFromLine(R"({"category": 65535, "type": 0})");
  ASSERT_TRUE(event) << event.error();
  EXPECT_EQ(event->category, 65535);
  EXPECT_EQ(event->type, 0);
  EXPECT_EQ(event->flag, 0u);
  EXPECT_FALSE(event->payload.has_value());
}

TEST(EventLineTest, WhatIsNoEventIsToldWhy) {
  const auto errorOf = [](const char* line) {
    const auto event = eventFromLine(line);
    return event ? std::string("(an event)") : event.error();
  };
  EXPECT_THAT(errorOf("{"), HasSubstr("not JSON"));
  EXPECT_EQ(errorOf("[]"), "not a JSON object");
  EXPECT_EQ(errorOf(R"({"type": 1})"), "\"category\" must be a whole number from 0 to 65535");
  EXPECT_EQ(errorOf(R"({"category": 65536, "type": 1})"),
            "\"category\" must be a whole number from 0 to 65535");
  EXPECT_EQ(errorOf(R"({"category": 1, "type": 1.5})"), "\"type\" must be a whole number from 0 to 65535");
  EXPECT_EQ(errorOf(R"({"category": 1, "type": 2, "flag": -1})"), "\"flag\" must be a whole number");
  EXPECT_EQ(errorOf(R"({"category": 1, "type": 2, "payload": []})"), "\"payload\" must be an object");
  EXPECT_EQ(errorOf(R"({"category": 1, "type": 2, "pay": {}})"), "unknown field \"pay\"");
}

}  // namespace
}  // namespace zun
