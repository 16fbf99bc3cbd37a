#include "values/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "NumberedDictionary.h"

namespace zun {
namespace {

constexpr int64_t kMaximum = std::numeric_limits<int64_t>::max();
constexpr int64_t kMinimum = std::numeric_limits<int64_t>::min();
const std::string kLongText = "a text that does not fit into a value";

// --- Kinds -----------------------------------------------------------------------------

TEST(ValueTest, EachKindIsItselfAndNothingElse) {
  EXPECT_TRUE(Value().isNone());
  EXPECT_TRUE(Value::none().isNone());
  EXPECT_TRUE(Value(true).isBoolean());
  EXPECT_TRUE(Value(1).isInteger());
  EXPECT_TRUE(Value(uint16_t{1}).isInteger());
  EXPECT_TRUE(Value(1.0).isReal());
  EXPECT_TRUE(Value("text").isString());
  EXPECT_TRUE(Value(kLongText).isString());
  EXPECT_TRUE(Value::literal("a literal that stands where it stands").isString());
  EXPECT_TRUE(Value::data("bytes").isData());
  EXPECT_TRUE(Value(Date{1}).isDate());
  EXPECT_TRUE(Value(Array()).isArray());
  EXPECT_TRUE(Value(Dictionary()).isDictionary());

  EXPECT_FALSE(Value("text").isData());
  EXPECT_FALSE(Value::data("text").isString());
  EXPECT_FALSE(Value(Date{1}).isNumber());
  EXPECT_TRUE(Value(true).isNumber());
  EXPECT_FALSE(Value(true).isInteger());
  EXPECT_FALSE(Value(1).isBoolean());
}

TEST(ValueTest, WrongTypesDegradeToNothing) {
  const Value values[] = {Value(),         Value("text"),    Value::data("12"),
                          Value(Date{12}), Value(Array{12}), Value(Dictionary{{"12", 12}})};
  for (const Value& value : values) {
    EXPECT_EQ(value.intValue(), 0) << value.description();
    EXPECT_EQ(value.doubleValue(), 0) << value.description();
    if (!value.isString()) {
      EXPECT_EQ(value.stringValue(), "");
      EXPECT_EQ(value.string(), std::nullopt);
      EXPECT_EQ(value.utf16Length(), 0U);
      EXPECT_FALSE(value.boolValue());
    }
    if (!value.isData()) {
      EXPECT_EQ(value.dataValue(), "");
    }
    if (!value.isDate()) {
      EXPECT_EQ(value.date(), std::nullopt);
    }
    if (!value.isArray()) {
      EXPECT_EQ(value.array(), nullptr);
    }
    if (!value.isDictionary()) {
      EXPECT_EQ(value.dictionary(), nullptr);
    }
  }
  EXPECT_EQ(Value(12).string(), std::nullopt);
}

TEST(ValueTest, EmptyViewsWithoutAnyMemoryAreEmptyValues) {
  EXPECT_EQ(Value(std::string_view()).string(), "");
  EXPECT_TRUE(Value::data({}).isData());
  EXPECT_EQ(Value::data({}).dataValue(), "");
  EXPECT_EQ(Value::literal(std::string_view()).string(), "");
  EXPECT_FALSE(numbered(100).contains(std::string_view()));
  EXPECT_FALSE(numbered(3).contains(std::string_view()));
}

// --- Numbers ---------------------------------------------------------------------------

TEST(ValueTest, IntegersKeepTheirFullRange) {
  EXPECT_EQ(Value(kMaximum).intValue(), kMaximum);
  EXPECT_EQ(Value(kMinimum).intValue(), kMinimum);
  EXPECT_EQ(Value(kMinimum).doubleValue(), -9223372036854775808.0);
  EXPECT_EQ(Value(uint32_t{0xFFFFFFFF}).intValue(), 4294967295);
  EXPECT_EQ(Value(int8_t{-1}).intValue(), -1);
  EXPECT_FALSE(Value(-1).isAboveInt64());
  EXPECT_FALSE(Value(kMaximum).isAboveInt64());
}

TEST(ValueTest, UnsignedIntegersBeyondTheSignedOnesAreKnown) {
  const Value value(std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(value.isAboveInt64());
  EXPECT_EQ(value.intValue(), -1);
  EXPECT_EQ(value.doubleValue(), 18446744073709551615.0);
  EXPECT_EQ(value.description(), "18446744073709551615");
  EXPECT_NE(value, Value(-1));
  EXPECT_EQ(value, Value(std::numeric_limits<uint64_t>::max()));
  EXPECT_TRUE(Value(uint64_t{1} << 63).isAboveInt64());
  EXPECT_FALSE(Value((uint64_t{1} << 63) - 1).isAboveInt64());
}

TEST(ValueTest, RealsAreCutAndBoundedAsIntegers) {
  EXPECT_EQ(Value(2.9).intValue(), 2);
  EXPECT_EQ(Value(-2.9).intValue(), -2);
  EXPECT_EQ(Value(1e300).intValue(), kMaximum);
  EXPECT_EQ(Value(-1e300).intValue(), kMinimum);
  EXPECT_EQ(Value(9223372036854775808.0).intValue(), kMaximum);
  EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).intValue(), kMaximum);
  EXPECT_EQ(Value(std::nan("")).intValue(), 0);
}

TEST(ValueTest, Int32ValueIsTheLowHalf) {
  EXPECT_EQ(Value(int64_t{0x1'0000'0005}).int32Value(), 5);
  EXPECT_EQ(Value(int64_t{0xFFFFFFFF}).int32Value(), -1);
  EXPECT_EQ(Value(true).int32Value(), 1);
}

TEST(ValueTest, AStringGivesItsLeadingInteger) {
  EXPECT_EQ(Value("42").intValue(), 42);
  EXPECT_EQ(Value(" \t\r\n42 apples").intValue(), 42);
  EXPECT_EQ(Value("-7").intValue(), -7);
  EXPECT_EQ(Value("+7").intValue(), 7);
  EXPECT_EQ(Value("3.9").intValue(), 3);
  EXPECT_EQ(Value("0x10").intValue(), 0);
  EXPECT_EQ(Value("007").intValue(), 7);
  for (const char* const text : {"", " ", "-", "+", "+-5", "--5", "-+5", "- 5", "x1", ".5", "NaN"}) {
    EXPECT_EQ(Value(text).intValue(), 0) << text;
  }
  EXPECT_EQ(Value("9223372036854775807").intValue(), kMaximum);
  EXPECT_EQ(Value("9223372036854775808").intValue(), kMaximum);
  EXPECT_EQ(Value("-9223372036854775808").intValue(), kMinimum);
  EXPECT_EQ(Value("-99999999999999999999999").intValue(), kMinimum);
}

TEST(ValueTest, AStringGivesItsLeadingReal) {
  EXPECT_EQ(Value("2.5").doubleValue(), 2.5);
  EXPECT_EQ(Value("  -2.5e2 and more").doubleValue(), -250);
  EXPECT_EQ(Value("+.5").doubleValue(), 0.5);
  EXPECT_EQ(Value("7").doubleValue(), 7);
  EXPECT_EQ(Value("1e").doubleValue(), 1);
  EXPECT_EQ(Value("0x10").doubleValue(), 0);
  for (const char* const text :
       {"", " ", "-", "+", ".", "+-5", "--5", "-+5", "nan", "inf", "-infinity", "e5"}) {
    EXPECT_EQ(Value(text).doubleValue(), 0) << text;
  }
  EXPECT_EQ(Value("1e999").doubleValue(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(Value("-1e999 ").doubleValue(), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(Value("1e-999").doubleValue(), 0);
}

TEST(ValueTest, BooleanOfAString) {
  for (const char* const text :
       {"YES", "yes", "y", "true", "T", "1", "9", "  -001", "+1", "00y", "\t1", "1no"}) {
    EXPECT_TRUE(Value(text).boolValue()) << text;
  }
  for (const char* const text :
       {"", " ", "no", "NO", "false", "0", "000", "-", "-0", "0.5", "x1", "- 1", "--1"}) {
    EXPECT_FALSE(Value(text).boolValue()) << text;
  }
}

TEST(ValueTest, BooleanOfANumberIsWhetherItIsNotZero) {
  EXPECT_TRUE(Value(true).boolValue());
  EXPECT_FALSE(Value(false).boolValue());
  EXPECT_TRUE(Value(-1).boolValue());
  EXPECT_FALSE(Value(0).boolValue());
  EXPECT_TRUE(Value(0.1).boolValue());
  EXPECT_FALSE(Value(0.0).boolValue());
}

// --- Strings and data ------------------------------------------------------------------

TEST(ValueTest, StringsOfEveryLengthComeBackWhole) {
  for (size_t length = 0; length < 40; ++length) {
    const std::string text(length, 'x');
    const Value value(text);
    EXPECT_EQ(value.stringValue(), text);
    const Value copy = value;
    EXPECT_EQ(copy.stringValue(), text);
    EXPECT_EQ(Value::literal(std::string_view(text)), value);
  }
}

TEST(ValueTest, TextMayHoldAnyByte) {
  const std::string_view text("a\0b\xFF", 4);
  EXPECT_EQ(Value(text).stringValue(), text);
  EXPECT_EQ(Value::data(text).dataValue(), text);
}

TEST(ValueTest, Utf16LengthCountsCodeUnits) {
  EXPECT_EQ(Value("").utf16Length(), 0U);
  EXPECT_EQ(Value("abc").utf16Length(), 3U);
  EXPECT_EQ(Value("\xC3\xA4\xE2\x82\xAC").utf16Length(), 2U);
  EXPECT_EQ(Value("a\xF0\x9F\x98\x80").utf16Length(), 3U);
}

// --- Copies ----------------------------------------------------------------------------

TEST(ValueTest, CopiesAndMovesKeepTheContent) {
  const Value values[] = {
      Value(),   Value(true),        Value(5),       Value(2.5),  Value("abc"),
      kLongText, Value::data("xyz"), Value(Date{7}), Array{1, 2}, Dictionary{{"k", kLongText}}};
  for (const Value& value : values) {
    Value copy = value;
    EXPECT_EQ(copy, value);
    Value moved = std::move(copy);
    EXPECT_EQ(moved, value);
    EXPECT_TRUE(copy.isNone());  // NOLINT: a moved value is none, as promised
    Value target("another text, which has to be let go of");
    target = value;
    EXPECT_EQ(target, value);
    target = *&target;
    EXPECT_EQ(target, value);
    Value& alias = target;
    target = std::move(alias);
    EXPECT_EQ(target, value);
  }
}

TEST(ValueTest, AValueMayBeReplacedByAPartOfItself) {
  Value value = Array{Array{kLongText}};
  value = (*value.array())[0];
  value = (*value.array())[0];
  EXPECT_EQ(value.stringValue(), kLongText);
}

TEST(ValueTest, ChangingACopyLeavesTheOriginalAlone) {
  const Dictionary original{{"a", 1}, {"b", Array{1, 2}}};
  Dictionary copy = original;
  copy.set("a", 2);
  copy.set("c", 3);
  copy.remove("b");
  EXPECT_EQ(original, (Dictionary{{"a", 1}, {"b", Array{1, 2}}}));
  EXPECT_EQ(copy, (Dictionary{{"a", 2}, {"c", 3}}));

  const Array list{1, 2};
  Array longer = list;
  longer.append(3);
  longer.replace(0, 9);
  EXPECT_EQ(list, (Array{1, 2}));
  EXPECT_EQ(longer, (Array{9, 2, 3}));
}

TEST(ValueTest, SharedContentMayBeReadAndLetGoOfOnManyThreads) {
  Dictionary shared = numbered(100);
  shared.set("text", kLongText);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = shared, t]() mutable {
      for (int i = 0; i < 200; ++i) {
        Dictionary mine = copy;
        EXPECT_EQ(mine["text"].stringValue(), kLongText);
        mine.set("own", t);
        EXPECT_EQ(mine["own"].intValue(), t);
        mine.remove("key 5");
        EXPECT_EQ(mine.size(), 101U);
      }
    });
  }
  shared.remove("text");
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared, numbered(100));
}

// --- Arrays ----------------------------------------------------------------------------

TEST(ArrayTest, KeepsItsElementsInOrder) {
  Array array;
  EXPECT_TRUE(array.empty());
  EXPECT_EQ(array.begin(), array.end());
  for (int i = 0; i < 1000; ++i) array.append(i);
  ASSERT_EQ(array.size(), 1000U);
  int expected = 0;
  for (const Value& element : array) EXPECT_EQ(element.intValue(), expected++);
}

TEST(ArrayTest, BeyondItsEndThereIsNone) {
  Array array{1};
  EXPECT_TRUE(array[1].isNone());
  EXPECT_TRUE(Array()[0].isNone());
  array.replace(1, 5);
  EXPECT_EQ(array, Array{1});
}

TEST(ArrayTest, MayHoldItselfAsItWas) {
  Array array{1};
  array.append(array);
  array.append(array[1]);
  EXPECT_EQ(Value(array).description(), "(1, (1), (1))");
}

TEST(ArrayTest, EqualMeansSameElementsInTheSameOrder) {
  EXPECT_EQ((Array{1, "a"}), (Array{1, "a"}));
  EXPECT_NE((Array{1, "a"}), (Array{"a", 1}));
  EXPECT_NE((Array{1}), (Array{1, 2}));
  EXPECT_EQ(Array(), Array::withCapacity(5));
}

// --- Equality, description, sizes --------------------------------------------------------

TEST(ValueTest, EqualMeansSameKindAndContent) {
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(true), Value(true));
  EXPECT_NE(Value(true), Value(false));
  EXPECT_NE(Value(true), Value(1));
  EXPECT_NE(Value(0.0), Value(false));
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value("a"), Value::data("a"));
  EXPECT_NE(Value(Date{1}), Value(1));
  EXPECT_EQ(Value(Date{1}), Value(Date{1}));
  EXPECT_NE(Value(), Value(0));
  EXPECT_EQ(Value(), Value());
  EXPECT_NE(Value(Array()), Value(Dictionary()));
  EXPECT_EQ(Value(kLongText), Value::literal(std::string_view(kLongText)));
}

TEST(ValueTest, DescriptionsOfAllButAStringAreOneLine) {
  EXPECT_EQ(Value().description(), "(null)");
  EXPECT_EQ(Value(true).description(), "true");
  EXPECT_EQ(Value(-5).description(), "-5");
  EXPECT_EQ(Value(2.5).description(), "2.5");
  EXPECT_EQ(Value("text").description(), "text");
  EXPECT_EQ(Value::data("\x01\xFF").description(), "<01ff>");
  EXPECT_EQ(Value(Array{1, "a\nb"}).description(), "(1, \"a\\nb\")");
  EXPECT_EQ(Value(Dictionary{{"k\n", Array{}}, {"l", "x\ry\x7f"}}).description(),
            "{k\\n = (); l = \"x\\x0dy\\x7f\"}");
  EXPECT_EQ(
      Value::data(std::string(33, 'a')).description(), "<" + [] {
        std::string hex;
        for (int i = 0; i < 32; ++i) hex += "61";
        return hex;
      }() + "... 33 bytes>");
}

TEST(ValueTest, AStringIsItsOwnDescriptionAndValuesFormatAsTheirs) {
  EXPECT_EQ(Value("two\nlines").description(), "two\nlines");
  EXPECT_EQ(fmt::format("{}", Value("two\nlines")), "two\nlines");
  EXPECT_EQ(fmt::format("{}", Value(Array{1, true})), "(1, true)");
  EXPECT_EQ(fmt::format("{}", Value()), "(null)");
}

TEST(ValueTest, WhatIsHeldInlineHasNoAllocationSize) {
  for (const Value& value :
       {Value(), Value(true), Value(1), Value(1.5), Value(Date{1}), Value("fourteen bytes"),
        Value::literal("a literal that is longer than fourteen bytes"), Value(Array()),
        Value(Dictionary())}) {
    EXPECT_EQ(value.allocationSize(), 0U) << value.description();
  }
}

TEST(ValueTest, TheAllocationSizeIsThatOfTheBlock) {
  EXPECT_GE(Value(kLongText).allocationSize(), kLongText.size());
  EXPECT_GE(Value::data("x").allocationSize(), 1U);
  EXPECT_GE(Value(Array{1, 2}).allocationSize(), 2 * sizeof(Value));
  const Dictionary record = Dictionary::withCapacity(35);
  EXPECT_GE(record.allocationSize(), 35 * sizeof(DictionaryEntry));
  EXPECT_EQ(Value(record).allocationSize(), record.allocationSize());
}

TEST(ValueTest, DeepNestingAsAllowedIsNoBurden) {
  Value value = 1;
  for (int depth = 0; depth < 128; ++depth) {
    value = depth % 2 == 0 ? Value(Array{value}) : Value(Dictionary{{"k", value}});
  }
  const Value copy = value;
  EXPECT_EQ(copy, value);
  EXPECT_FALSE(value.description().empty());
}

}  // namespace
}  // namespace zun
