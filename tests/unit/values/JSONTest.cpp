#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <new>

#include "support/MemoryLimit.h"
#include "values/JSONReader.h"
#include "values/JSONWriter.h"

namespace zun {
namespace {

std::string compact(const Value& value) {
  return writeJSON(value, JSONFormat::kCompact);
}

std::string parseFailureOf(std::string_view text) {
  const auto value = parseJSON(text);
  return value ? "" : value.error();
}

TEST(JSONWriterTest, WritesEveryKindInTheOrderOfTheRecord) {
  const Value record =
      Dictionary{{"z", 1},      {"a", -1},     {"text", "x"},
                 {"yes", true}, {"no", false}, {"list", Array{1, "two", Array{}, Dictionary{}}},
                 {"real", 1.5}};
  EXPECT_EQ(compact(record),
            R"({"z":1,"a":-1,"text":"x","yes":true,"no":false,"list":[1,"two",[],{}],"real":1.5})");
  EXPECT_EQ(writeJSON(Dictionary{{"a", 1}, {"b", Array{true}}}, JSONFormat::kPretty),
            "{\n  \"a\": 1,\n  \"b\": [\n    true\n  ]\n}");
}

TEST(JSONWriterTest, WhatHasNoFormIsNull) {
  EXPECT_EQ(compact(Array{Value(), Value::data("x"), Date{1}, std::nan(""), INFINITY, -INFINITY}),
            "[null,null,null,null,null,null]");
  EXPECT_EQ(compact(Dictionary{{"d", Value::data("x")}}), R"({"d":null})");
  EXPECT_EQ(compact(Value()), "null");
}

TEST(JSONWriterTest, IntegersKeepAllTheirDigits) {
  EXPECT_EQ(compact(Array{std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(),
                          std::numeric_limits<uint64_t>::max(), 0}),
            "[-9223372036854775808,9223372036854775807,18446744073709551615,0]");
}

TEST(JSONWriterTest, RealsRoundTrip) {
  for (const double number : {0.1, 1.0 / 3, 1e300, 5e-324, 1.7976931348623157e308, 1700000000.123456, -0.0,
                              1e21, 123456789012345680.0, 0.000001}) {
    const auto read = parseJSON(compact(number));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->doubleValue(), number);
    EXPECT_TRUE(read->isReal()) << compact(number);
  }
  EXPECT_EQ(compact(0.1), "0.1");
  EXPECT_EQ(compact(1700000000.123456), "1700000000.123456");
}

TEST(JSONWriterTest, EscapesWhatJSONWantsEscapedWhereverItStands) {
  // Every place of a text of every short length, each in turn the one to be escaped.
  for (size_t length = 1; length < 20; ++length) {
    for (size_t place = 0; place < length; ++place) {
      for (const char character : {'"', '\\', '\n', '\x01', '\x1f', '\0', ' ', '\x7f', '!', '#', '['}) {
        std::string text(length, 'a');
        text[place] = character;
        const std::string json = compact(text);
        const bool isEscaped =
            character == '"' || character == '\\' || static_cast<unsigned char>(character) < 0x20;
        EXPECT_EQ(json.size() > length + 2, isEscaped) << json;
        const auto read = parseJSON(json);
        ASSERT_TRUE(read) << json;
        EXPECT_EQ(read->stringValue(), text);
      }
    }
  }
  EXPECT_EQ(compact("\"\\\b\f\n\r\t/\x01"), R"("\"\\\b\f\n\r\t/\u0001")");
  EXPECT_EQ(compact(Dictionary{{"k\"", "v"}}), R"({"k\"":"v"})");
  EXPECT_EQ(compact(""), R"("")");
}

TEST(JSONWriterTest, UTF8PassesThroughAndWhatIsNotIsReplaced) {
  EXPECT_EQ(compact("Größe 日本 😀"), "\"Größe 日本 😀\"");
  EXPECT_EQ(compact("Größe \"日本\""), "\"Größe \\\"日本\\\"\"");
  EXPECT_EQ(compact("a\xFFz"), "\"a\xEF\xBF\xBDz\"");
  EXPECT_EQ(compact("\xED\xA0\x80"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"") << "a surrogate";
  EXPECT_EQ(compact("\xC0\xAF"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\"") << "an overlong form";
  EXPECT_EQ(compact(std::string(30, 'x') + "\xE6\x97"),
            "\"" + std::string(30, 'x') + "\xEF\xBF\xBD\xEF\xBF\xBD\"");
  EXPECT_EQ(compact(Dictionary{{"\xFF\n", 1}}), "{\"\xEF\xBF\xBD\\n\":1}");
}

TEST(JSONWriterTest, NestingBeyondAllBoundsEndsInNull) {
  Value deep = 1;
  for (int i = 0; i < 1000; ++i) deep = Array{deep};
  const std::string expected = std::string(128, '[') + "null" + std::string(128, ']');
  EXPECT_EQ(compact(deep), expected);
}

// Values share a text in memory; JSON has it as often as it stands there.
TEST(JSONWriterTest, TextThatMemoryCannotHoldThrows) {
  if (!MemoryLimit::kIsPossible) GTEST_SKIP();
  const Value text(std::string(size_t{16} << 20, 'x'));
  Array many;
  for (int i = 0; i < 64; ++i) many.append(text);
  const MemoryLimit limit(size_t{256} << 20);
  EXPECT_THROW((void)compact(many), std::bad_alloc);
  EXPECT_THROW((void)writeJSON(many, JSONFormat::kPretty), std::bad_alloc);
}

TEST(JSONReaderTest, ReadsWhatTheWriterWrites) {
  const Value record = Dictionary{{"b", Array{1, 2.5, "x", true, Dictionary{{"c", false}}}},
                                  {"a", ~uint64_t{0}},
                                  {"long text of a key", "日本 \"quoted\" \n"}};
  for (const auto format : {JSONFormat::kCompact, JSONFormat::kPretty}) {
    const auto read = parseJSON(writeJSON(record, format));
    ASSERT_TRUE(read) << read.error();
    EXPECT_EQ(*read, record);
    EXPECT_EQ(compact(*read), compact(record)) << "the order of keys";
  }
}

TEST(JSONReaderTest, NumbersAreSignedUnsignedOrReal) {
  EXPECT_TRUE(parseJSON("9223372036854775807")->isInteger());
  EXPECT_FALSE(parseJSON("9223372036854775807")->isAboveInt64());
  EXPECT_TRUE(parseJSON("18446744073709551615")->isAboveInt64());
  EXPECT_EQ(parseJSON("18446744073709551616")->doubleValue(), 18446744073709551616.0);
  EXPECT_TRUE(parseJSON("1.0")->isReal());
  EXPECT_TRUE(parseJSON("1e2")->isReal());
  EXPECT_EQ(parseJSON("-12")->intValue(), -12);
}

TEST(JSONReaderTest, NullIsNoneAndLeftOutOfDictionaries) {
  EXPECT_TRUE(parseJSON("null")->isNone());
  EXPECT_EQ(*parseJSON(R"({"a":1,"a":null,"b":null})"), (Dictionary{{"a", 1}}));  // null is no entry
  const auto read = parseJSON(R"({"a":null,"b":[null,1],"c":1,"c":null})");
  ASSERT_TRUE(read);
  EXPECT_FALSE(read->dictionary()->contains("a"));
  EXPECT_EQ((*read->dictionary())["b"].array()->size(), 2u);
}

TEST(JSONReaderTest, OfAKeyThatComesTwiceTheLastValueCountsInTheFirstPlace) {
  EXPECT_EQ(compact(*parseJSON(R"({"a":1,"b":2,"a":3})")), R"({"a":3,"b":2})");
}

TEST(JSONReaderTest, WhatIsNotJSONIsAnErrorWithItsOffset) {
  EXPECT_EQ(parseFailureOf(""), "offset 0: The document is empty.");
  for (const char* text : {"{", "[1,]", "{\"a\"}", "{a:1}", "01", "+1", "nul", "\"", "\"\\x\"", "[1] 2",
                           "\"\xFF\"", "\"\\ud800\"", "1e999", "-", "{\"a\":1,}", "\"\n\"", "'a'", "NaN"}) {
    EXPECT_NE(parseFailureOf(text).find("offset"), std::string::npos) << text;
  }
  EXPECT_NE(parseFailureOf(std::string_view("{}\0x", 4)), "") << "text behind a NUL";
}

TEST(JSONReaderTest, DepthIsBounded) {
  EXPECT_TRUE(parseJSON(std::string(64, '[') + std::string(64, ']')));
  EXPECT_EQ(parseFailureOf(std::string(65, '[') + std::string(65, ']')), "offset 64: nested too deep");
  EXPECT_NE(parseFailureOf(std::string(1'000'000, '[')), "");
  std::string objects;
  for (int i = 0; i < 100'000; ++i) objects += "{\"a\":";
  EXPECT_NE(parseFailureOf(objects), "");
}

}  // namespace
}  // namespace zun
