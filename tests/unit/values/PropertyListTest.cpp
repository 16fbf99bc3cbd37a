#include <cmath>

#include "PropertyListTest.h"
#include "support/CollidingTexts.h"

namespace zun {
namespace {

// --- both forms ------------------------------------------------------------------

TEST(PropertyListTest, EveryKindRoundTripsInBothForms) {
  for (const std::string& bytes :
       {serializeBinaryPropertyList(everyKind()), serializeXMLPropertyList(everyKind())}) {
    const Value read = valueOf(bytes);
    EXPECT_EQ(read, everyKind());
    EXPECT_EQ(keysOf(read), keysOf(everyKind()));
    EXPECT_TRUE((*read.dictionary())["yes"].isBoolean());
    EXPECT_TRUE((*read.dictionary())["int"].array()->end()[-1].isAboveInt64());
  }
}

TEST(PropertyListTest, RealsThatAreNoNumbersRoundTrip) {
  for (const auto serialize : {serializeBinaryPropertyList, serializeXMLPropertyList}) {
    EXPECT_TRUE(std::isnan(valueOf(serialize(std::nan(""))).doubleValue()));
    EXPECT_EQ(valueOf(serialize(-INFINITY)).doubleValue(), -INFINITY);
  }
}

TEST(PropertyListTest, OrderOfManyKeysIsKept) {
  Dictionary dictionary;
  for (int i = 0; i < 1000; ++i) dictionary.set(fmt::format("{}", i * 7919 % 1000), i);
  for (const auto serialize : {serializeBinaryPropertyList, serializeXMLPropertyList}) {
    EXPECT_EQ(keysOf(valueOf(serialize(dictionary))), keysOf(dictionary));
  }
}

// Clients choose what is written: in a table of the standard library these take a minute.
TEST(PropertyListTest, TextsChosenToCollideAreWrittenAsAnyOther) {
  const std::vector<std::string> texts = collidingTexts('t', 200'000);
  ASSERT_EQ(std::hash<std::string>()(texts[0]), std::hash<std::string>()(texts[1]));
  Array array;
  for (const std::string& text : texts) array.append(text);
  EXPECT_EQ(valueOf(serializeBinaryPropertyList(array)), Value(array));
}

TEST(PropertyListTest, WhatIsNoneIsNotWrittenAsXML) {
  EXPECT_EQ(valueOf(serializeXMLPropertyList(Array{"a", Value(), "b"})), Value(Array{"a", "b"}));
}

TEST(PropertyListTest, SizeIsBounded) {
  EXPECT_EQ(failureOf(""), "empty");
  EXPECT_EQ(failureOf(std::string(101, ' '), {.maximumBytes = 100}),
            "101 bytes are more than the 100 that are allowed");
  EXPECT_NE(failureOf(std::string((16 << 20) + 1, ' ')).find("more than the 16777216"), std::string::npos);
}

TEST(PropertyListTest, DepthIsBoundedInBothForms) {
  Value deep = Array{};
  for (int i = 1; i < 64; ++i) deep = i % 2 == 0 ? Value(Array{deep}) : Value(Dictionary{{"k", deep}});
  const Value deeper = Array{deep};
  for (const auto serialize : {serializeBinaryPropertyList, serializeXMLPropertyList}) {
    EXPECT_EQ(valueOf(serialize(deep)), deep);
    EXPECT_NE(failureOf(serialize(deeper)).find("nested too deep"), std::string::npos);
  }
}

TEST(PropertyListTest, WritersEndNestingBeyondAllBounds) {
  Value deep = 1;
  for (int i = 0; i < 1000; ++i) deep = Array{deep};
  EXPECT_NE(failureOf(serializeBinaryPropertyList(deep)).find("nested too deep"), std::string::npos);
  EXPECT_NE(failureOf(serializeXMLPropertyList(deep)).find("nested too deep"), std::string::npos);
}

TEST(PropertyListTest, WrittenTextIsAlwaysReadable) {
  const std::string text("a\x01\xff\xef\xbf\xbe\xef\xbf\xbf\xef\xbf", 11);
  EXPECT_EQ(valueOf(serializeXMLPropertyList(text)).stringValue(), "a\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(valueOf(serializeBinaryPropertyList(text)).stringValue(),
            "a\x01\uFFFD\xef\xbf\xbe\xef\xbf\xbf\uFFFD\uFFFD");
  EXPECT_EQ(valueOf(serializeXMLPropertyList(Dictionary{{"<\xff>", 1}})), Value(Dictionary{{"<\uFFFD>", 1}}));
}

TEST(PropertyListTest, XMLHasNoDocumentType) {
  const std::string text = serializeXMLPropertyList(Dictionary{{"a", 1}});
  EXPECT_EQ(text,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n\t<key>a</key>\n"
            "\t<integer>1</integer>\n</dict>\n</plist>\n");
}

// --- XML -------------------------------------------------------------------------

TEST(XMLPropertyListTest, Integers) {
  EXPECT_EQ(valueOfXML("<integer> 42 \n</integer>"), Value(42));
  EXPECT_EQ(valueOfXML("<integer>+42</integer>"), Value(42));
  EXPECT_EQ(valueOfXML("<integer>-0x1F</integer>"), Value(-31));
  EXPECT_EQ(valueOfXML("<integer>0XfF</integer>"), Value(255));
  EXPECT_TRUE(valueOfXML("<integer>18446744073709551615</integer>").isAboveInt64());
  EXPECT_EQ(valueOfXML("<integer>-9223372036854775808</integer>").intValue(),
            std::numeric_limits<int64_t>::min());
  for (const char* text : {"", " ", "x", "1.5", "1 2", "0x", "--1", "+-1", "18446744073709551616",
                           "-9223372036854775809", "0x10000000000000000", "1<!-- --> 2"}) {
    EXPECT_EQ(failureOfXML("<integer>" + std::string(text) + "</integer>"), "line 1: not an integer") << text;
  }
}

TEST(XMLPropertyListTest, Reals) {
  EXPECT_EQ(valueOfXML("<real> 1.5e3 </real>"), Value(1500.0));
  EXPECT_TRUE(valueOfXML("<real>2</real>").isReal());
  EXPECT_EQ(valueOfXML("<real>+.5</real>"), Value(0.5));
  EXPECT_EQ(valueOfXML("<real>-inf</real>").doubleValue(), -INFINITY);
  EXPECT_TRUE(std::isnan(valueOfXML("<real>nan</real>").doubleValue()));
  for (const char* text : {"", "x", "1,5", "1.5.2", "++1", "--1", "+-", "1e999", "0x1p3"}) {
    EXPECT_EQ(failureOfXML("<real>" + std::string(text) + "</real>"), "line 1: not a number") << text;
  }
}

TEST(XMLPropertyListTest, Dates) {
  EXPECT_EQ(valueOfXML("<date>2023-11-14T22:13:20Z</date>").date(), Date{1700000000});
  EXPECT_EQ(valueOfXML("<date>\n 1970-01-01T00:00:00.25Z </date>").date(), Date{0.25});
  EXPECT_EQ(valueOfXML("<date>2024-02-29T23:59:60Z</date>").date(), Date{1709251200});
  EXPECT_EQ(valueOfXML("<date>0000-01-01T00:00:00Z</date>").date(), Date{-62167219200});
  for (const char* text : {"", "Z", "2023-02-29T00:00:00Z", "2023-13-01T00:00:00Z", "2023-00-01T00:00:00Z",
                           "2023-01-01T24:00:00Z", "2023-01-01T00:60:00Z", "2023-01-01T00:00:61Z",
                           "2023-01-01T00:00:00", "2023-01-01 00:00:00Z", "2023-01-01T00:00:00.Z",
                           "2023-01-01T00:00:00.-5Z", "2023-1-01T00:00:00Z", "x023-01-01T00:00:00Z"}) {
    EXPECT_EQ(failureOfXML("<date>" + std::string(text) + "</date>"), "line 1: not a date") << text;
  }
}

TEST(XMLPropertyListTest, DatesBeyondTheFormAreCut) {
  EXPECT_NE(serializeXMLPropertyList(Date{1e300}).find("<date>9999-12-31T23:59:59Z</date>"),
            std::string::npos);
  EXPECT_NE(serializeXMLPropertyList(Date{-INFINITY}).find("<date>0000-01-01T00:00:00Z</date>"),
            std::string::npos);
  EXPECT_NE(serializeXMLPropertyList(Date{std::nan("")}).find("<date>1970-01-01T00:00:00Z</date>"),
            std::string::npos);
}

TEST(XMLPropertyListTest, DataIsBase64InAnyLayout) {
  EXPECT_EQ(valueOfXML("<data>\n\tZm9v\n\tYmFy\n</data>").dataValue(), "foobar");
  EXPECT_TRUE(valueOfXML("<data/>").isData());
  EXPECT_EQ(failureOfXML("<data>Zm9vY</data>"), "line 1: not Base64");
}

TEST(XMLPropertyListTest, TextIsTakenAsItStands) {
  EXPECT_EQ(valueOfXML("<string> a&lt;b &#x1F600; <![CDATA[<raw>&amp;]]> <!-- no --></string>").stringValue(),
            " a<b 😀 <raw>&amp; ");
  EXPECT_EQ(valueOfXML("<string/>").stringValue(), "");
}

TEST(XMLPropertyListTest, OtherEncodingsBecomeUTF8) {
  EXPECT_EQ(valueOf("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><string>\xFC</string>").stringValue(),
            "ü");
  std::string wide = "\xFF\xFE";
  for (const char character : std::string_view("<string>a</string>")) wide += std::string{character, '\0'};
  EXPECT_EQ(valueOf(wide).stringValue(), "a");
  EXPECT_EQ(valueOf("\xEF\xBB\xBF<string>a</string>").stringValue(), "a");
}

TEST(XMLPropertyListTest, TextThatIsNotUTF8IsRefused) {
  EXPECT_EQ(failureOfXML("<string>\xFF</string>"), "line 1: not well-formed (invalid token)");
  EXPECT_NE(failureOfXML("<string>\xED\xA0\x80</string>"), "");
  EXPECT_NE(failureOfXML("<string>&#xD800;</string>"), "");
  EXPECT_NE(failureOfXML("<key>\xFF</key>"), "");
}

TEST(XMLPropertyListTest, OfAKeyThatComesTwiceTheLastValueCountsInTheFirstPlace) {
  const Value read =
      valueOfXML("<dict><key>a</key><true/><key>b</key><true/><key>a</key><integer>2</integer></dict>");
  EXPECT_EQ(keysOf(read), "a,b,");
  EXPECT_EQ((*read.dictionary())["a"], Value(2));
}

TEST(XMLPropertyListTest, WhatIsNoPropertyListIsToldByLine) {
  EXPECT_EQ(failureOf("<plist>\n\n<dict>\n<true/></dict></plist>"), "line 4: a value without a key");
  EXPECT_EQ(failureOfXML("<dict><key>a</key></dict>"), "line 1: a key without a value");
  EXPECT_EQ(failureOfXML("<dict><key>a</key><key>b</key></dict>"), "line 1: a key without a value");
  EXPECT_EQ(failureOfXML("<key>a</key>"), "line 1: <key> outside of <dict>");
  EXPECT_EQ(failureOfXML("<array><key>a</key></array>"), "line 1: <key> outside of <dict>");
  EXPECT_EQ(failureOfXML("<true/><true/>"), "line 1: more than one value");
  EXPECT_EQ(failureOfXML("<array/><array/>"), "line 1: more than one value");
  EXPECT_EQ(failureOfXML("<html/>"), "line 1: unknown element");
  EXPECT_EQ(failureOfXML("<string><true/></string>"), "line 1: an element inside a simple value");
  EXPECT_EQ(failureOfXML("<array>text</array>"), "line 1: text outside of a value");
  EXPECT_EQ(failureOfXML("<true>text</true>"), "line 1: text outside of a value");
  EXPECT_EQ(failureOfXML("<plist><true/></plist>"), "line 1: <plist> is not the outermost element");
  EXPECT_EQ(failureOf("<array><plist><true/></plist></array>"),
            "line 1: <plist> is not the outermost element");
  EXPECT_EQ(failureOf("<plist/>"), "no value");
  EXPECT_EQ(failureOf("<dict>"), "line 1: no element found");
  EXPECT_EQ(failureOf("garbage"), "line 1: syntax error");
  EXPECT_EQ(failureOf(" <?xml version=\"1.0\"?><true/>"),
            "line 1: XML or text declaration not at start of entity");
  EXPECT_EQ(failureOf("<true/> behind"), "line 1: junk after document element");
  EXPECT_NE(failureOf(std::string_view("<true/>\0", 8)), "");
}

TEST(XMLPropertyListTest, ADocumentTypeIsToleratedButNotWhatItMayDeclare) {
  EXPECT_EQ(valueOf("<!DOCTYPE "
                    "plist PUBLIC \"-//x//y\" \"http://127.0.0.1:1/x.dtd\"><plist><true/></plist>"),
            Value(true));
  EXPECT_EQ(failureOf("<!DOCTYPE p [<!ENTITY a \"x\">]><string>&a;</string>"),
            "line 1: declarations are not accepted");
  EXPECT_EQ(failureOf("<!DOCTYPE p [<!ATTLIST dict a CDATA \"x\">]><dict/>"),
            "line 1: declarations are not accepted");
  EXPECT_EQ(failureOf("<!DOCTYPE p SYSTEM \"x\"><string>&unknown;</string>"), "line 1: unknown entity");
  EXPECT_EQ(failureOf("<string>&unknown;</string>"), "line 1: undefined entity");
  EXPECT_NE(failureOf("<!DOCTYPE p [<!ENTITY f SYSTEM \"file:///etc/passwd\">]><string>&f;</string>"), "");
}

TEST(XMLPropertyListTest, ValuesAreCounted) {
  const PropertyListLimits limits{.maximumValues = 5};
  EXPECT_EQ(failureOf("<array><true/><true/><true/><true/></array>", limits), "");
  EXPECT_EQ(failureOf("<array><true/><true/><true/><true/><true/></array>", limits),
            "line 1: too many values");
  std::string many = "<array>";
  while (many.size() < (15 << 20)) many += "<true/>";
  EXPECT_EQ(failureOf(many + "</array>"), "line 1: too many values");
}

TEST(XMLPropertyListTest, LargeHostileInputIsLinear) {
  const size_t size = 15 << 20;
  EXPECT_NE(failureOf(std::string(size, '<')), "");
  EXPECT_NE(failureOf("<array " + std::string(size, 'a')), "");
  EXPECT_NE(failureOf("<!--" + std::string(size, '-')), "");
  EXPECT_NE(failureOf("<string>" + std::string(size, '&')), "");
  EXPECT_NE(failureOf("<real>" + std::string(size, '1') + "</real>"), "");
  std::string attributes = "<array";
  for (int i = 0; attributes.size() < size / 8; ++i) attributes += fmt::format(" a{}=\"\"", i);
  EXPECT_EQ(failureOf(attributes + "/>"), "");
  std::string entities = "<string>";
  while (entities.size() < size) entities += "&lt;\n";
  EXPECT_EQ(failureOf(entities + "</string>"), "");
  std::string open;
  while (open.size() < size) open += "<array>";
  EXPECT_EQ(failureOf(open), "line 1: nested too deep");
}

}  // namespace
}  // namespace zun
