#include "JSONProperties.h"

#include <gtest/gtest.h>

#include "values/JSONReader.h"
#include "values/JSONWriter.h"

namespace zun {
namespace {

using zunreporting::PropertyArray;
using zunreporting::PropertyData;
using zunreporting::PropertyDate;
using zunreporting::PropertyDictionary;
using zunreporting::PropertyValue;

std::string throughProperties(const std::string& json) {
  return writeJSON(jsonValueOf(propertyOf(*parseJSON(json))), JSONFormat::kCompact);
}

TEST(JSONPropertiesTest, JSONComesThroughPropertiesAsItWas) {
  for (const char* const json :
       {R"({"b":2,"a":[true,false,-1,18446744073709551615,2.5,"h\u00e4h",{}],"":[]})", "[]", "\"\"", "0"}) {
    EXPECT_EQ(*parseJSON(throughProperties(json)), *parseJSON(json)) << json;
  }
}

TEST(JSONPropertiesTest, NullIsLeftOut) {
  EXPECT_EQ(throughProperties(R"({"a":null,"b":[1,null,2]})"), R"({"b":[1,2]})");
}

TEST(JSONPropertiesTest, DataIsBase64AndADateItsSeconds) {
  const PropertyDictionary properties{{"data", PropertyData{std::string("\0\xFF", 2)}},
                                      {"date", PropertyDate{7.5}}};
  EXPECT_EQ(writeJSON(jsonValueOf(properties), JSONFormat::kCompact), R"({"data":"AP8=","date":7.5})");
}

// A variant in a message: 1-byte signature length, signature, NUL, padding up to 8, content.
TEST(JSONPropertiesTest, LargestMessageSizeCountsEveryPart) {
  EXPECT_GE(largestMessageSize(PropertyValue(std::string(1000, 'x'))), 1000u + 5 + 11);
  const size_t empty = largestMessageSize(PropertyValue(PropertyArray{}));
  EXPECT_GE(largestMessageSize(PropertyValue(PropertyArray(100, PropertyValue(int64_t{1})))),
            empty + 100 * 24);
  const size_t entry = largestMessageSize(PropertyValue(PropertyDictionary{{std::string(500, 'k'), 1.5}}));
  EXPECT_GE(entry, 500u + 5 + 8 + 24);
}

}  // namespace
}  // namespace zun
