#include "values/KeyedArchiver.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "support/CollidingTexts.h"

namespace zun {
namespace {

Value roundTrip(const Value& root) {
  const auto archive = archiveObject(root);
  if (!archive) {
    ADD_FAILURE() << "no archive";
    return {};
  }
  const auto again = unarchiveObject(*archive);
  EXPECT_TRUE(again) << again.error();
  return again ? *again : Value();
}

/// The archive as the property list that it is.
Dictionary layoutOf(const Value& root) {
  const auto list = parsePropertyList(archiveObject(root).value_or(""));
  EXPECT_TRUE(list && list->isDictionary());
  return list && list->isDictionary() ? *list->dictionary() : Dictionary();
}

Value nested(size_t depth, Value value = "core") {
  for (size_t i = 0; i < depth; ++i)
    value = i % 2 == 0 ? Value(Array{value}) : Value(Dictionary{{"k", value}});
  return value;
}

Dictionary archiveOf(const Array& objects, const Value& top) {
  return {{"format", "zunreporting.keyed-archive"}, {"version", 1}, {"objects", objects}, {"top", top}};
}
Result<Value, std::string> read(const Dictionary& archive, const PropertyListLimits& limits = {}) {
  return unarchiveObject(serializeBinaryPropertyList(archive), limits);
}
std::string unarchivingFailureOf(const Dictionary& archive, const PropertyListLimits& limits = {}) {
  const auto value = read(archive, limits);
  return value ? "" : value.error();
}
Dictionary dictionaryObject(const Array& keys, const Array& values) {
  return {{"keys", keys}, {"values", values}};
}

/// An array of two of the one before, `levels` times: 2^levels values written out.
Array doublings(int64_t levels) {
  Array objects{"seed"};
  for (int64_t i = 0; i < levels; ++i) objects.append(Array{i, i});
  return objects;
}

TEST(KeyedArchiverTest, EveryKindOfValueComesBack) {
  const Array root = {"text",  "grüße \xF0\x9F\x8C\xB3",
                      "",      Value::data(std::string_view("\0\xff\x01", 3)),
                      true,    false,
                      0,       -1,
                      65536,   std::numeric_limits<int64_t>::min(),
                      2.5,     std::numeric_limits<uint64_t>::max(),
                      Array{}, Date{1'700'000'000.25},
                      Value(), Dictionary{{"b", 1}, {"a", Array{1, Dictionary{}}}}};
  const Value again = roundTrip(root);
  EXPECT_EQ(again, Value(root));
  EXPECT_EQ(again.description(), Value(root).description());
}

TEST(KeyedArchiverTest, EveryObjectStandsOnceInTheTableAfterWhatItContains) {
  const Value record = Dictionary{{"level", "error"}, {"text", "error"}};
  const Dictionary layout = layoutOf(Array{record, "level", record});
  EXPECT_EQ(layout["format"], Value("zunreporting.keyed-archive"));
  EXPECT_EQ(layout["version"], Value(1));
  EXPECT_EQ(layout["objects"],
            Value(Array{"level", "error", "text", dictionaryObject({0, 2}, {1, 1}), Array{3, 0, 3}}));
  EXPECT_EQ(layout["top"], Value(4));
}

TEST(KeyedArchiverTest, RootMayBeAnyValue) {
  EXPECT_EQ(roundTrip("alone"), Value("alone"));
  EXPECT_EQ(roundTrip(Array{}), Value(Array{}));
  EXPECT_TRUE(roundTrip(Value()).isNone());
}

// 1, 1.0 and true are equal to each other in other places; here they stay what they are.
TEST(KeyedArchiverTest, OnlyObjectsOfTheSameKindAreShared) {
  const Value again = roundTrip(Array{1, 1.0, true, "1", Value::data("1"), Date{1}, 1});
  const Array& array = *again.array();
  EXPECT_TRUE(array[0].isInteger());
  EXPECT_TRUE(array[1].isReal());
  EXPECT_TRUE(array[2].isBoolean());
  EXPECT_TRUE(array[3].isString());
  EXPECT_TRUE(array[4].isData());
  EXPECT_TRUE(array[5].isDate());
  EXPECT_EQ(layoutOf(again)["objects"].array()->size(), 7U);
}

TEST(KeyedArchiverTest, DictionariesOfAnotherOrderAreOthers) {
  const Value again = roundTrip(Array{Dictionary{{"a", 1}, {"b", 1}}, Dictionary{{"b", 1}, {"a", 1}}});
  EXPECT_EQ((*again.array())[0].dictionary()->begin()->key, Value("a"));
  EXPECT_EQ((*again.array())[1].dictionary()->begin()->key, Value("b"));
}

TEST(KeyedArchiverTest, ArrayOfIndicesAndItsTwinOfNumbersAreKeptApart) {
  const Value root =
      Array{0, Array{0}, Array{Value(Array{0})}, Dictionary{{"keys", Array{0}}, {"values", Array{1}}}};
  EXPECT_EQ(roundTrip(root), root);
}

TEST(KeyedArchiverTest, SixtyFourLevelsAreArchivedAndSixtyFiveAreNot) {
  EXPECT_EQ(roundTrip(nested(64)), nested(64));
  EXPECT_EQ(archiveObject(nested(65)), std::nullopt);
  EXPECT_EQ(roundTrip(nested(63, Array{})), nested(63, Array{}));
  EXPECT_EQ(archiveObject(nested(64, Dictionary{})), std::nullopt);
  EXPECT_EQ(archiveObject(nested(2000)), std::nullopt);
}

// A client that chooses its records well must not keep a thread busy with comparing them:
// in a table of the standard library these take a minute.
TEST(KeyedArchiverTest, DataChosenToCollideIsArchivedAsAnyOther) {
  constexpr uint32_t kCount = 200'000;
  Array records;
  for (const std::string& text : collidingTexts('x', kCount))
    records.append(Value::data(std::string_view(text).substr(1)));
  EXPECT_EQ(layoutOf(records)["objects"].array()->size(), kCount + 1);
}

TEST(KeyedArchiverTest, WhatIsNoArchiveIsRefused) {
  EXPECT_FALSE(unarchiveObject(""));
  EXPECT_FALSE(unarchiveObject("bplist00"));
  const auto failure = [](const Value& root) {
    const auto value = unarchiveObject(serializeBinaryPropertyList(root));
    return value ? "" : value.error();
  };
  EXPECT_EQ(failure(Array{1}), "not a keyed archive");
  EXPECT_EQ(failure(Dictionary{{"format", 1}}), "not a keyed archive");
  Dictionary archive = archiveOf({1}, 0);
  archive.set("version", 2);
  EXPECT_EQ(unarchivingFailureOf(archive), "an unknown version of the archive");
  archive.set("version", "1");
  EXPECT_EQ(unarchivingFailureOf(archive), "an unknown version of the archive");
  archive = archiveOf({1}, 0);
  archive.set("objects", "none");
  EXPECT_EQ(unarchivingFailureOf(archive), "an archive without a table");
}

TEST(KeyedArchiverTest, IndicesMeanEarlierObjectsOnly) {
  EXPECT_EQ(unarchivingFailureOf(archiveOf({Value(Array{0})}, 0)), "an index of no object");  // itself
  EXPECT_EQ(unarchivingFailureOf(archiveOf({Array{1}, "later"}, 0)), "an index of no object");
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"x", Array{-1}}, 1)), "an index of no object");
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"x", Array{std::numeric_limits<uint64_t>::max()}}, 1)),
            "an index of no object");
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"x", Array{"0"}}, 1)), "an index of no object");
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"x", Array{0.0}}, 1)), "an index of no object");
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"x"}, 1)), "an index of no object");
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"x"}, Value())), "an index of no object");
  EXPECT_EQ(unarchivingFailureOf(archiveOf({}, 0)), "an index of no object");
}

TEST(KeyedArchiverTest, DictionaryHasAsManyKeysAsValuesAndTheyAreStrings) {
  const char* const kUneven = "a dictionary without as many values as keys";
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"k", dictionaryObject({0}, {})}, 1)), kUneven);
  EXPECT_EQ(unarchivingFailureOf(archiveOf({"k", Dictionary{{"keys", Array{0}}}}, 1)), kUneven);
  EXPECT_EQ(unarchivingFailureOf(archiveOf({5, dictionaryObject({0}, {0})}, 1)), "a key that is no string");
}

TEST(KeyedArchiverTest, KeyThatComesTwiceKeepsItsLastValue) {
  const auto value = read(archiveOf({"k", 1, 2, dictionaryObject({0, 0}, {1, 2})}, 3));
  ASSERT_TRUE(value) << value.error();
  EXPECT_EQ(*value, Value(Dictionary{{"k", 2}}));
}

// A table of a few hundred bytes must not become a million million values.
TEST(KeyedArchiverTest, SharedObjectsCountAsOftenAsTheyAreReferredTo) {
  EXPECT_TRUE(read(archiveOf(doublings(18), 18)));
  EXPECT_EQ(unarchivingFailureOf(archiveOf(doublings(40), 40)), "too many values");
  EXPECT_EQ(unarchivingFailureOf(archiveOf(doublings(70), 0)), "too many values");  // wherever it stands

  Array indices;
  for (int i = 0; i < 100; ++i) indices.append(0);
  const Array objects{std::string(1000, 'x'), indices};
  EXPECT_TRUE(read(archiveOf(objects, 1), {.maximumExpandedBytes = 100'000}));
  EXPECT_EQ(unarchivingFailureOf(archiveOf(objects, 1), {.maximumExpandedBytes = 99'999}),
            "too large when written out");

  Array tenTimes;
  for (int i = 0; i < 10; ++i) tenTimes.append(1);
  const Array nested{std::string("x"), indices, tenTimes};
  EXPECT_TRUE(read(archiveOf(nested, 2), {.maximumValues = 1011}));
  EXPECT_EQ(unarchivingFailureOf(archiveOf(nested, 2), {.maximumValues = 1010}), "too many values");

  Array entries;
  for (int i = 0; i < 10; ++i) entries.append(2);
  const Array keyed{std::string(1000, 'k'), "v", dictionaryObject({0}, {1}), entries};
  EXPECT_TRUE(read(archiveOf(keyed, 3), {.maximumExpandedBytes = 10'010}));
  EXPECT_EQ(unarchivingFailureOf(archiveOf(keyed, 3), {.maximumExpandedBytes = 10'009}),
            "too large when written out");
}

TEST(KeyedArchiverTest, DepthOfWhatIsReadIsBounded) {
  Array objects{"core"};
  for (int64_t i = 0; i < 64; ++i) objects.append(Array{i});
  EXPECT_TRUE(read(archiveOf(objects, 64)));
  objects.append(Array{64});
  EXPECT_EQ(unarchivingFailureOf(archiveOf(objects, 65)), "nested too deep");
}

TEST(KeyedArchiverTest, EveryCutOffArchiveIsRefused) {
  const std::string archive = *archiveObject(Array{"text", Dictionary{{"a", 1}}});
  for (size_t length = 0; length < archive.size(); ++length)
    EXPECT_FALSE(unarchiveObject(archive.substr(0, length))) << length;
}

}  // namespace
}  // namespace zun
