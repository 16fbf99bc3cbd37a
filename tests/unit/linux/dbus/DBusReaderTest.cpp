// Bodies that are wrong, or on a limit, at one place.

#include <gtest/gtest.h>

#include "DBusPeer.h"

namespace zun {
namespace {

using Fill = std::function<void(WireBytes&)>;

std::string reasonOf(std::string_view signature, std::string_view body,
                     std::endian order = std::endian::native, const DBusLimits& limits = {}) {
  DBusHeader header;
  header.signature = signature;
  header.isSwapped = order != std::endian::native;
  const auto values = decodeDBusBody(header, body, limits);
  return values ? "none" : values.error().reason;
}

class DBusCutBodyTest : public ::testing::TestWithParam<std::endian> {};

// What lies behind it belongs to another message: reading on there would give values that
// nobody sent.
TEST_P(DBusCutBodyTest, ABodyThatIsCutAnywhereIsNotReadBeyondItsEnd) {
  const std::vector<std::pair<const char*, Fill>> values = {
      {"n", [](WireBytes& body) { body.number(int16_t{1}); }},
      {"q", [](WireBytes& body) { body.number(uint16_t{1}); }},
      {"i", [](WireBytes& body) { body.number(int32_t{1}); }},
      {"u", [](WireBytes& body) { body.u32(1); }},
      {"h", [](WireBytes& body) { body.u32(1); }},
      {"b", [](WireBytes& body) { body.u32(1); }},
      {"x", [](WireBytes& body) { body.number(int64_t{1}); }},
      {"t", [](WireBytes& body) { body.number(uint64_t{1}); }},
      {"d", [](WireBytes& body) { body.number(1.5); }},
      {"s", [](WireBytes& body) { body.text("text"); }},
      {"o", [](WireBytes& body) { body.text("/path"); }},
      {"g", [](WireBytes& body) { body.signature("a{sv}"); }},
      {"v", [](WireBytes& body) { body.signature("x").number(int64_t{1}); }},
      {"v", [](WireBytes& body) { body.signature("s").text("text"); }},
      {"v", [](WireBytes& body) { body.signature("v").signature("y").u8(1); }},
      {"ay", [](WireBytes& body) { body.array(1, [](WireBytes& bytes) { bytes.raw("bytes"); }); }},
      {"ax", [](WireBytes& body) { body.array(8, [](WireBytes& array) { array.number(int64_t{1}); }); }},
      {"as", [](WireBytes& body) { body.array(4, [](WireBytes& array) { array.text("a").text("b"); }); }},
      {"(yx)", [](WireBytes& body) { body.align(8).u8(1).number(int64_t{1}); }},
      {"(d)", [](WireBytes& body) { body.align(8).number(1.5); }},
      {"a{sx}",
       [](WireBytes& body) {
         body.array(8, [](WireBytes& entries) {
           entries.text("k").number(int64_t{1}).align(8).text("l").number(int64_t{2});
         });
       }},
      {"a{uv}",
       [](WireBytes& body) {
         body.array(8, [](WireBytes& entries) { entries.u32(1).signature("d").number(1.5); });
       }},
  };
  for (const auto& [type, fill] : values) {
    WireBytes body(GetParam());
    fill(body.u8(1));
    const std::string signature = std::string("y") + type;
    EXPECT_EQ(reasonOf(signature, body.bytes(), GetParam()), "none") << signature;
    for (size_t length = 0; length < body.bytes().size(); ++length) {
      const std::string reason =
          reasonOf(signature, std::string_view(body.bytes()).substr(0, length), GetParam());
      EXPECT_TRUE(reason.starts_with("it ends within ")) << signature << " of " << length << ": " << reason;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Orders, DBusCutBodyTest, ::testing::Values(std::endian::little, std::endian::big),
                         [](const auto& order) {
                           return order.param == std::endian::big ? "Big" : "Little";
                         });

TEST(DBusReaderTest, PaddingIsZeroThroughout) {
  const std::string body = WireBytes().u8(1).number(int64_t{1}).bytes();
  for (size_t place = 1; place < 8; ++place) {
    std::string changed = body;
    changed[place] = '\1';
    EXPECT_EQ(reasonOf("yx", changed), "padding is not zero") << place;
  }
}

/// An array that says it is so many bytes long, in a body where more follows.
std::string arrayOf(uint32_t bytes, size_t alignment, const WireBytes& content) {
  return WireBytes().u32(bytes).align(alignment).raw(content.bytes()).raw(std::string(64, '\0')).bytes();
}

TEST(DBusReaderTest, ElementsEndWithTheirArray) {
  WireBytes numbers;
  numbers.number(int64_t{1}).number(int64_t{2});
  EXPECT_EQ(reasonOf("ax", arrayOf(12, 8, numbers)), "it ends within a number");
  EXPECT_EQ(reasonOf("as", arrayOf(7, 4, WireBytes().text("text"))), "it ends within a string");
  EXPECT_EQ(reasonOf("as", arrayOf(8, 4, WireBytes().text("text"))), "it ends within a string");
  EXPECT_EQ(reasonOf("ag", arrayOf(2, 1, WireBytes().signature("i"))), "it ends within a signature");
  EXPECT_EQ(reasonOf("a{sx}", arrayOf(6, 8, WireBytes().text("k"))), "it ends within padding");
  EXPECT_EQ(reasonOf("a{sx}", arrayOf(8, 8, WireBytes().text("k"))), "it ends within a number");
  EXPECT_EQ(reasonOf("a(yx)", arrayOf(1, 8, WireBytes().u8(1))), "it ends within padding");
  EXPECT_EQ(reasonOf("av", arrayOf(3, 1, WireBytes().signature("u"))), "it ends within padding");
  EXPECT_EQ(reasonOf("aay", arrayOf(6, 4, WireBytes().u32(3).raw("abc"))), "it ends within an array");
}

TEST(DBusReaderTest, WhatFollowsAnArrayIsNoElement) {
  WireBytes body;
  body.array(4, [](WireBytes& array) { array.u32(1).u32(2); }).u32(3);
  body.array(8, [](WireBytes& entries) { entries.text("k").u8(4); }).text("text");
  DBusHeader header;
  header.signature = "auua{sy}s";
  const auto values = decodeDBusBody(header, body.bytes());
  ASSERT_TRUE(values) << values.error().reason;
  EXPECT_EQ(*values, (Array{Array{1, 2}, 3, Dictionary{{"k", 4}}, "text"}));
}

}  // namespace
}  // namespace zun
