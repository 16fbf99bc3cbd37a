#include "util/MacroExpansion.h"

#include "support/TestPlatform.h"

namespace zun {
namespace {

class MacroExpansionTest : public PlatformTest {
 protected:
  void expand(Dictionary& container, std::string_view key) {
    expandMacroForDataSet(container, key, shared_, platform_.log);
  }

  const Dictionary shared_{{"==servers", Array{"a", "b"}}, {"==limit", 7}, {"plain", "never looked up"}};
};

TEST_F(MacroExpansionTest, MacroIsReplacedByTheListOfItsParts) {
  Dictionary container{{"release", Dictionary{{"hosts", "==servers"}, {"other", "stays"}}}};
  expand(container, "release");
  EXPECT_EQ(container, (Dictionary{{"release", Dictionary{{"hosts", Array{"a", "b"}}, {"other", "stays"}}}}));
  expectDebugLine("expandMacroForDataSet: Expanding macro '==servers' into '(\"a\", \"b\")'");
}

TEST_F(MacroExpansionTest, LookupUsesTheWholeStringWithItsPrefix) {
  Dictionary container{{"section", Array{"==plain", "plain", "=servers", "servers", " ==servers"}}};
  const Dictionary before = container;
  expand(container, "section");
  EXPECT_EQ(container, before);
}

TEST_F(MacroExpansionTest, MacroWithoutAnEntryStaysAsItIs) {
  Dictionary container{{"section", "==missing"}};
  expand(container, "section");
  EXPECT_EQ(container["section"], Value("==missing"));
}

TEST_F(MacroExpansionTest, BothDictionariesOfAnArrayHaveTheirMacrosReplaced) {
  Dictionary container{{"clients", Array{Dictionary{{"a", "==limit"}}, Dictionary{{"b", "==servers"}}}}};
  expand(container, "clients");
  EXPECT_EQ(container["clients"], Value(Array{Dictionary{{"a", 7}}, Dictionary{{"b", Array{"a", "b"}}}}));
}

TEST_F(MacroExpansionTest, ReplacementIsNotExpandedAgain) {
  const Dictionary shared{{"==first", "==second"}, {"==second", "end"}};
  Dictionary container{{"section", "==first"}};
  expandMacroForDataSet(container, "section", shared, platform_.log);
  EXPECT_EQ(container["section"], Value("==second"));
}

TEST_F(MacroExpansionTest, OnlyTheNamedKeyIsTouched) {
  Dictionary container{{"release", "==limit"}, {"seed", "==limit"}};
  expand(container, "release");
  EXPECT_EQ(container, (Dictionary{{"release", 7}, {"seed", "==limit"}}));
}

TEST_F(MacroExpansionTest, KeysKeepTheirOrder) {
  Dictionary container{{"s", Dictionary{{"z", "==limit"}, {"a", 1}, {"m", "==servers"}}}};
  expand(container, "s");
  EXPECT_EQ(container["s"].description(), R"({z = 7; a = 1; m = ("a", "b")})");
}

TEST_F(MacroExpansionTest, MissingKeyAndIndexDoNothing) {
  Dictionary dictionary;
  expand(dictionary, "release");
  EXPECT_TRUE(dictionary.empty());
  Array array{"==limit"};
  expandMacroForDataSet(array, 1, shared_, platform_.log);
  EXPECT_EQ(array, (Array{"==limit"}));
  expandMacroForDataSet(array, 0, shared_, platform_.log);
  EXPECT_EQ(array, (Array{7}));
}

TEST_F(MacroExpansionTest, MacroNamesAsKeysAreNoMacros) {
  Dictionary container{{"s", Dictionary{{"==limit", 1}}}};
  expand(container, "s");
  EXPECT_EQ(container["s"], Value(Dictionary{{"==limit", 1}}));
}

// Whoever still holds the parsed storebag sees it as it was.
TEST_F(MacroExpansionTest, SharedContentIsNotChanged) {
  const Dictionary original{{"s", Dictionary{{"deep", Array{"==limit"}}}}};
  Dictionary copy = original;
  expand(copy, "s");
  EXPECT_EQ(original, (Dictionary{{"s", Dictionary{{"deep", Array{"==limit"}}}}}));
  EXPECT_EQ(copy, (Dictionary{{"s", Dictionary{{"deep", Array{7}}}}}));
}

// As deep as the parser lets anything through, and wide.
TEST_F(MacroExpansionTest, DeepAndWideInputIsExpandedThroughout) {
  Value nested("==limit");
  for (int depth = 0; depth < 64; ++depth) {
    nested = depth % 2 == 0 ? Value(Array{nested}) : Value(Dictionary{{"k", nested}});
  }
  Array wide = Array::withCapacity(100'000);
  for (int i = 0; i < 100'000; ++i) wide.append(i % 2 == 0 ? Value("==limit") : Value(i));
  Dictionary container{{"s", Dictionary{{"deep", nested}, {"wide", wide}}}};
  expandMacroForDataSet(container, "s", shared_, platform_.log);

  const Dictionary& section = *container["s"].dictionary();
  EXPECT_EQ(section["deep"].description().find("=="), std::string::npos);
  const Array& expandedWide = *section["wide"].array();
  ASSERT_EQ(expandedWide.size(), 100'000U);
  EXPECT_EQ(expandedWide[99'998], Value(7));
  EXPECT_EQ(expandedWide[99'999], Value(99'999));
}

}  // namespace
}  // namespace zun
