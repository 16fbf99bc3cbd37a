#include "backends/FilterTable.h"

#include <gtest/gtest.h>

#include "backends/ZunReportingBackend.h"

namespace zun {
namespace {

Dictionary filter(const char* key, const char* action) {
  return {{"key", key}, {"action", action}};
}

Dictionary filtered(const Array& filters, Dictionary record) {
  FilterTable(filters).filterEvent(record);
  return record;
}

TEST(FilterTableTest, NoFiltersLeaveTheRecordAlone) {
  const Dictionary record{{"account", "me"}};
  EXPECT_EQ(filtered({}, record), record);
  EXPECT_EQ(FilterTable().numberOfFilters(), 0);
}

TEST(FilterTableTest, KeysAreComparedInAnyLetterCase) {
  const Dictionary record{{"account", "me"}, {"accounts", "us"}, {"ACCOUNT", "ME"}};
  EXPECT_EQ(filtered({filter("Account", "remove")}, record), (Dictionary{{"accounts", "us"}}));
}

TEST(FilterTableTest, LetterCaseBeyondASCIICountsAsLittle) {
  const Array filters{filter("GRÖße", "remove"), filter("\u2C65", "remove"), filter("plain", "remove")};
  EXPECT_EQ(filtered(filters, {{"größe", 1}, {"GRÖße", 2}, {"Größen", 3}, {"\u023A", 4}, {"PLAIN", 5}}),
            (Dictionary{{"Größen", 3}}));
}

TEST(FilterTableTest, LettersBeyondASCIIMayBeASCIIInLowerCase) {
  const std::string kelvin = "\u212A";
  const Dictionary record{
      {Value(kelvin + "ey"), 1}, {Value("ke" + kelvin), 2}, {Value("k" + kelvin + "y"), 3}};
  EXPECT_EQ(filtered({filter("key", "remove"), filter("KEK", "remove")}, record).size(), 1U);
}

TEST(FilterTableTest, EveryKeyOfManyIsFoundInAnyLetterCase) {
  Array filters{filter("", "remove")};
  Dictionary record{{"", 0}, {"stays", true}};
  for (int number = 0; number < 500; ++number) {
    const std::string name = std::string(static_cast<size_t>(number % 40), 'x') + std::to_string(number);
    filters.append(
        Dictionary{{"key", name + "Key" + static_cast<char>('A' + number % 26)}, {"action", "remove"}});
    record.set(name + "KEY" + static_cast<char>('a' + number % 26), number);
  }
  EXPECT_EQ(filtered(filters, record), (Dictionary{{"stays", true}}));
}

TEST(FilterTableTest, KeysLongerThanAnyUsualOneAreFoundToo) {
  const std::string longKey(300, 'K');
  const std::string sameInLowerCase(300, 'k');
  Dictionary record{{Value(longKey), 1}, {Value(std::string(299, 'K')), 2}};
  FilterTable(Array{Dictionary{{"key", sameInLowerCase}, {"action", "remove"}}}).filterEvent(record);
  EXPECT_FALSE(record.contains(longKey));
  EXPECT_EQ(record.size(), 1U);
}

TEST(FilterTableTest, SHA256ReplacesTheValueByItsDigestInPlace) {
  const Dictionary record = filtered({filter("name", "sha256"), filter("number", "sha256")},
                                     {{"name", "abc"}, {"number", 42}, {"other", "x"}});
  EXPECT_EQ(record["name"], Value("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
  EXPECT_EQ(record["number"], Value(ZunReportingBackend::convertIntoSHA256("42")));
  EXPECT_EQ(record.begin()->key, Value("name"));
}

Dictionary listFilter(const char* action, Value values) {
  return {{"key", "host"}, {"action", action}, {"value", std::move(values)}};
}

TEST(FilterTableTest, BlacklistValuesRemovesStringsThatContainAnElementInAnyLetterCase) {
  const Array filters{listFilter("blacklistValues", Array{"x", "LOCAL"})};
  EXPECT_EQ(filtered(filters, {{"host", "my.localhost"}}), Dictionary());
  EXPECT_EQ(filtered(filters, {{"host", "example"}}).size(), 0U);  // contains "x"
  EXPECT_EQ(filtered(filters, {{"host", "other"}}).size(), 1U);
}

TEST(FilterTableTest, WhitelistValuesKeepsOnlyStringsThatContainAnElement) {
  const Array filters{listFilter("whitelistValues", Array{"good"})};
  EXPECT_EQ(filtered(filters, {{"host", "GOODone"}}).size(), 1U);
  EXPECT_EQ(filtered(filters, {{"host", "bad"}}).size(), 0U);
}

TEST(FilterTableTest, WhitelistValuesWithoutElementsRemovesEveryString) {
  for (const Value& values : {Value(Array{}), Value(), Value(7), Value(Array{""})}) {
    EXPECT_EQ(filtered({listFilter("whitelistValues", values)}, {{"host", "any"}}).size(), 0U);
    EXPECT_EQ(filtered({listFilter("blacklistValues", values)}, {{"host", "any"}}).size(), 1U);
  }
}

TEST(FilterTableTest, SingleTextCountsAsListOfOne) {
  EXPECT_EQ(filtered({listFilter("whitelistValues", "good")}, {{"host", "goodness"}}).size(), 1U);
  EXPECT_EQ(filtered({listFilter("blacklistValues", "good")}, {{"host", "goodness"}}).size(), 0U);
}

TEST(FilterTableTest, ValueScreeningKeepsWhatIsNoString) {
  for (const char* action : {"whitelistValues", "blacklistValues"}) {
    for (const Value& value : {Value(5), Value(true), Value(Array{"good"}), Value(Date{1})}) {
      EXPECT_EQ(filtered({listFilter(action, Array{"good", "5"})}, {{"host", value}})["host"], value);
    }
  }
}

TEST(FilterTableTest, FilterWithoutMethodAppliesToEveryRecordOfItsStatus) {
  Dictionary ofStatus3 = filter("secret", "remove");
  ofStatus3.set("status", 3);
  for (const int method : {0, 1, 65535}) {
    EXPECT_FALSE(
        filtered({ofStatus3}, {{"_method", method}, {"_status", 3}, {"secret", 1}}).contains("secret"));
    EXPECT_TRUE(
        filtered({ofStatus3}, {{"_method", method}, {"_status", 4}, {"secret", 1}}).contains("secret"));
  }
}

TEST(FilterTableTest, NegativeMethodOrStatusMeansAny) {
  Dictionary any = filter("secret", "remove");
  any.set("method", -7);
  any.set("status", "-1");
  EXPECT_FALSE(filtered({any}, {{"_method", 9}, {"_status", 9}, {"secret", 1}}).contains("secret"));
}

TEST(FilterTableTest, RecordWithoutMethodAndStatusCountsAsZero) {
  Dictionary zero = filter("secret", "remove");
  zero.set("method", 0);
  zero.set("status", 0);
  EXPECT_FALSE(filtered({zero}, {{"secret", 1}}).contains("secret"));
  EXPECT_TRUE(filtered({zero}, {{"_method", 1}, {"secret", 1}}).contains("secret"));
  EXPECT_TRUE(filtered({zero}, {{"_status", 1}, {"secret", 1}}).contains("secret"));
  zero.set("method", 1);
  EXPECT_TRUE(filtered({zero}, {{"secret", 1}}).contains("secret"));
}

TEST(FilterTableTest, FirstFilterThatFitsDecidesAlone) {
  Dictionary ofMethod5 = filter("secret", "anything");  // an unknown action keeps the value
  ofMethod5.set("method", 5);
  const Array filters{ofMethod5, filter("SECRET", "remove")};
  EXPECT_TRUE(filtered(filters, {{"_method", 5}, {"secret", 1}}).contains("secret"));
  EXPECT_FALSE(filtered(filters, {{"_method", 6}, {"secret", 1}}).contains("secret"));
}

TEST(FilterTableTest, FirstFilterThatKeepsTheValueEndsTheSearch) {
  const Array filters{listFilter("whitelistValues", Array{"good"}), filter("host", "remove")};
  EXPECT_TRUE(filtered(filters, {{"host", "good"}}).contains("host"));
}

TEST(FilterTableTest, RemovingTheMethodDoesNotChangeWhatOtherFiltersFit) {
  Dictionary ofMethod5 = filter("secret", "remove");
  ofMethod5.set("method", 5);
  EXPECT_EQ(filtered({filter("_method", "remove"), ofMethod5}, {{"_method", 5}, {"secret", 1}}),
            Dictionary());
}

TEST(FilterTableTest, FieldsOfWrongTypesActOnNothingOrCountAsAbsent) {
  const Array filters{
      "text",
      5,
      Dictionary{},
      Dictionary{{"key", 5}, {"action", "remove"}},
      Dictionary{{"key", Array{"secret"}}, {"action", "remove"}},
      Dictionary{{"key", "kept"}, {"action", 1}},
      Dictionary{{"key", "gone"}, {"action", "remove"}, {"method", Array{}}, {"status", Dictionary{}}}};
  EXPECT_EQ(FilterTable(filters).numberOfFilters(), 7);
  EXPECT_EQ(filtered(filters, {{"secret", 1}, {"kept", 2}, {"gone", 3}, {"_method", 8}}),
            (Dictionary{{"secret", 1}, {"kept", 2}, {"_method", 8}}));
}

TEST(FilterTableTest, TenThousandFiltersWorkOnTenThousandKeys) {
  Array filters;
  Dictionary record;
  for (int i = 0; i < 10'000; ++i) {
    filters.append(filter(("Key" + std::to_string(i)).c_str(), i % 2 == 0 ? "remove" : "sha256"));
    record.set("key" + std::to_string(i), "abc");
  }
  FilterTable(filters).filterEvent(record);
  EXPECT_EQ(record.size(), 5'000U);
  EXPECT_EQ(record["key9999"].stringValue().size(), 64U);
}

}  // namespace
}  // namespace zun
