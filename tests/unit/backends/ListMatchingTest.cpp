#include "backends/ListMatching.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

TEST(ListMatchingTest, EmptyListGivesTheBoolean) {
  for (const bool whitelist : {true, false}) {
    EXPECT_EQ(matchExactStringWithList({}, "foo", whitelist), whitelist);
    EXPECT_EQ(matchExactStringWithList({}, std::nullopt, whitelist), whitelist);
    EXPECT_EQ(matchStringWithList({}, "foo", whitelist), whitelist);
    EXPECT_EQ(matchStringWithList({}, std::nullopt, whitelist), whitelist);
  }
}

TEST(ListMatchingTest, MissingStringGivesTheContraryOfTheBoolean) {
  for (const bool whitelist : {true, false}) {
    EXPECT_EQ(matchExactStringWithList({"foo"}, std::nullopt, whitelist), !whitelist);
    EXPECT_EQ(matchStringWithList({"foo"}, std::nullopt, whitelist), !whitelist);
  }
}

TEST(ListMatchingTest, ExactTestWantsTheWholeStringInAnyLetterCase) {
  const StringList list{"Foo", "Bar"};
  EXPECT_TRUE(matchExactStringWithList(list, "bar", true));
  EXPECT_TRUE(matchExactStringWithList(list, "FOO", false));
  EXPECT_FALSE(matchExactStringWithList(list, "bar ", true));
  EXPECT_FALSE(matchExactStringWithList(list, "foobar", true));
  EXPECT_FALSE(matchExactStringWithList(list, "", true));
}

TEST(ListMatchingTest, SubstringTestWantsAnElementInsideTheStringInAnyLetterCase) {
  EXPECT_TRUE(matchStringWithList({"x", "cam"}, "RearCamera", true));
  EXPECT_FALSE(matchStringWithList({"RearCamera2"}, "RearCamera", true));
}

TEST(ListMatchingTest, EmptyElementIsContainedInNothing) {
  EXPECT_FALSE(matchStringWithList({""}, "RearCamera", true));
  EXPECT_FALSE(matchStringWithList({""}, "", true));
}

TEST(ListMatchingTest, CommaSeparatedPiecesAreNotTrimmed) {
  EXPECT_EQ(componentsSeparatedByComma("Foo, Bar,,"), (StringList{"Foo", " Bar", "", ""}));
  EXPECT_EQ(componentsSeparatedByComma(""), StringList{""});
  EXPECT_EQ(componentsSeparatedByComma(Value()), StringList{});
  EXPECT_EQ(componentsSeparatedByComma(Array{"Foo"}), StringList{});
}

TEST(ListMatchingTest, ElementsThatAreNoTextMatchNothingButMakeTheListNonEmpty) {
  const Value list(Array{5, Array{}, "DE"});
  EXPECT_TRUE(matchStringWithList(stringsOf(list), "de", false));
  EXPECT_FALSE(matchStringWithList(stringsOf(Array{5}), "5", true));
}

}  // namespace
}  // namespace zun
