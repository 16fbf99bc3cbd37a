#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "support/CollidingTexts.h"
#include "values/PropertyList.h"

namespace zun {
namespace {

std::string failureOf(std::string_view bytes, const PropertyListLimits& limits = {}) {
  const auto value = parsePropertyList(bytes, limits);
  return value ? "" : value.error();
}

Value valueOf(std::string_view bytes) {
  const auto value = parsePropertyList(bytes);
  EXPECT_TRUE(value) << value.error();
  return value ? *value : Value();
}

Value valueOfXML(const std::string& element) {
  return valueOf("<plist version=\"1.0\">" + element + "</plist>");
}

std::string failureOfXML(const std::string& element) {
  return failureOf("<plist version=\"1.0\">" + element + "</plist>");
}

std::string keysOf(const Value& value) {
  std::string keys;
  for (const auto& [key, entry] : *value.dictionary()) keys += std::string(key.stringValue()) + ",";
  return keys;
}

std::string bigEndian(uint64_t number, size_t width) {
  std::string bytes;
  for (size_t i = width; i-- > 0;) bytes += static_cast<char>(i < 8 ? number >> (8 * i) : 0);
  return bytes;
}

/// Puts a binary property list together, object by object, right or wrong.
struct BinaryFile {
  std::vector<std::string> objects;
  size_t offsetWidth = 4;
  size_t referenceWidth = 2;
  std::optional<uint64_t> count = std::nullopt;
  uint64_t top = 0;
  std::optional<uint64_t> table = std::nullopt;
  std::vector<uint64_t> offsets = {};  // instead of the objects' own

  std::string references(const std::vector<uint64_t>& indices) const {
    std::string bytes;
    for (const uint64_t index : indices) bytes += bigEndian(index, referenceWidth);
    return bytes;
  }
  std::string array(const std::vector<uint64_t>& indices) const {
    return "\xAF\x12" + bigEndian(indices.size(), 4) + references(indices);
  }
  std::string dictionary(const std::vector<uint64_t>& keysThenValues) const {
    return "\xDF\x12" + bigEndian(keysThenValues.size() / 2, 4) + references(keysThenValues);
  }
  std::string bytes() const {
    std::string out = "bplist00";
    std::vector<uint64_t> places = offsets;
    for (const std::string& object : objects) {
      if (offsets.empty()) places.push_back(out.size());
      out += object;
    }
    const size_t tableAt = out.size();
    for (const uint64_t place : places) out += bigEndian(place, offsetWidth);
    out += std::string(6, '\0');
    out += static_cast<char>(offsetWidth);
    out += static_cast<char>(referenceWidth);
    out += bigEndian(count.value_or(places.size()), 8) + bigEndian(top, 8) +
           bigEndian(table.value_or(tableAt), 8);
    return out;
  }
};

Value valueOfObject(const std::string& object) {
  return valueOf(BinaryFile{.objects = {object}}.bytes());
}

std::string failureOfObject(const std::string& object) {
  return failureOf(BinaryFile{.objects = {object}}.bytes());
}

std::string object(std::string_view marker, std::string_view content = {}) {
  return std::string(marker) + std::string(content);
}

Value everyKind() {
  return Dictionary{{"z", "last letter first"},
                    {"text", "Größe 日本 😀 <&> \r\n\t \"'"},
                    {"", "empty key"},
                    {"empty", ""},
                    {"int", Array{0, 1, -1, 127, 128, 255, 256, 65535, 65536, -128, 4294967295, 4294967296,
                                  std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(),
                                  std::numeric_limits<uint64_t>::max()}},
                    {"real", Array{0.1, -1e300, 5e-324, 1.0 / 3}},
                    {"yes", true},
                    {"no", false},
                    {"date", Date{1700000000}},
                    {"old", Date{-1e9}},
                    {"data", Value::data(std::string("\x00\x01\xff", 3))},
                    {"long", std::string(70000, 'x')},
                    {"nested", Dictionary{{"list", Array{Array{}, Dictionary{}}}}}};
}

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

// --- binary ----------------------------------------------------------------------

TEST(BinaryPropertyListTest, Singletons) {
  EXPECT_TRUE(valueOfObject(object(std::string_view("\x00", 1))).isNone());
  EXPECT_EQ(valueOfObject("\x08"), Value(false));
  EXPECT_EQ(valueOfObject("\x09"), Value(true));
  for (const char* marker : {"\x01", "\x0A", "\x0C", "\x0F"}) {
    EXPECT_EQ(failureOfObject(marker), "an object of unknown type");
  }
}

TEST(BinaryPropertyListTest, IntegersOfEveryWidth) {
  EXPECT_EQ(valueOfObject("\x10\xFF"), Value(255));
  EXPECT_EQ(valueOfObject("\x11\xFF\xFF"), Value(65535));
  EXPECT_EQ(valueOfObject("\x12\xFF\xFF\xFF\xFF"), Value(4294967295));
  EXPECT_EQ(valueOfObject("\x13" + bigEndian(~uint64_t{0}, 8)), Value(-1));
  const Value large = valueOfObject("\x14" + bigEndian(0, 8) + bigEndian(~uint64_t{0}, 8));
  EXPECT_EQ(large, Value(~uint64_t{0}));
  EXPECT_EQ(valueOfObject("\x14" + std::string(16, '\xFF')), Value(-1));
  EXPECT_EQ(failureOfObject("\x14" + bigEndian(1, 8) + bigEndian(0, 8)), "an integer beyond 64 bits");
  EXPECT_EQ(failureOfObject("\x14" + std::string(8, '\xFF') + bigEndian(0, 8)), "an integer beyond 64 bits");
  EXPECT_EQ(failureOfObject("\x15" + std::string(32, '\0')), "an integer of unknown width");
}

TEST(BinaryPropertyListTest, RealsDatesAndUIDs) {
  EXPECT_EQ(valueOfObject("\x22" + bigEndian(0x3FC00000, 4)), Value(1.5));
  EXPECT_EQ(valueOfObject("\x23" + bigEndian(0x3FF8000000000000, 8)), Value(1.5));
  EXPECT_EQ(valueOfObject("\x33" + bigEndian(0, 8)).date(), Date{978307200});
  EXPECT_EQ(valueOfObject("\x81\x01\x02"), Value(258));
  EXPECT_EQ(valueOfObject("\x87" + bigEndian(~uint64_t{0}, 8)), Value(~uint64_t{0}));
  EXPECT_EQ(failureOfObject("\x88" + std::string(9, '\0')), "a UID beyond 64 bits");
  EXPECT_EQ(failureOfObject("\x21" + std::string(2, '\0')), "a real of unknown width");
  EXPECT_EQ(failureOfObject("\x32" + std::string(4, '\0')), "a date of unknown width");
}

TEST(BinaryPropertyListTest, Strings) {
  EXPECT_EQ(valueOfObject("\x53"
                          "abc"),
            Value("abc"));
  EXPECT_EQ(valueOfObject(object("\x5F\x10\x14", std::string(20, 'x'))), Value(std::string(20, 'x')));
  EXPECT_EQ(failureOfObject("\x52\xC3\xBC"), "a string that is not ASCII");
  EXPECT_EQ(valueOfObject(std::string("\x63\x00\xFC\xD8\x3D\xDE\x00", 7)), Value("ü😀"));
  for (const char* units : {"\x61\xD8\x3D", "\x61\xDE\x01", "\x62\xD8\x3D\x01\x41", "\x62\xDE\x01\xD8\x3D"}) {
    EXPECT_EQ(failureOfObject(units), "a string that is not UTF-16");
  }
  EXPECT_EQ(valueOfObject("\x42\xFF\xFE").dataValue(), "\xFF\xFE");
}

TEST(BinaryPropertyListTest, SetsReadAsArrays) {
  for (const char marker : {'\xA1', '\xB1', '\xC1'}) {
    EXPECT_EQ(valueOf(BinaryFile{.objects = {std::string{marker, '\0', '\1'}, "\x09"}}.bytes()),
              Value(Array{true}));
  }
}

TEST(BinaryPropertyListTest, SharedObjectsAreBuiltOnce) {
  BinaryFile file;
  const std::string text(100, 'x');
  file.objects = {file.array({1, 1, 2, 2}), object("\x5F\x10\x64", text), file.array({1})};
  const Value value = valueOf(file.bytes());
  EXPECT_EQ(value, Value(Array{text, text, Array{text}, Array{text}}));
  const Array& array = *value.array();
  EXPECT_EQ(array[0].stringValue().data(), array[1].stringValue().data());
}

TEST(BinaryPropertyListTest, OfAKeyThatComesTwiceTheLastValueCountsInTheFirstPlace) {
  BinaryFile file;
  file.objects = {file.dictionary({1, 2, 1, 3, 4, 5, 6}),
                  "\x51"
                  "a",
                  "\x51"
                  "b",
                  "\x08",
                  "\x09",
                  "\x10\x07"};
  file.objects[0] = file.dictionary({1, 2, 1, 3, 4, 5});
  const Value value = valueOf(file.bytes());
  EXPECT_EQ(keysOf(value), "a,b,");
  EXPECT_EQ((*value.dictionary())["a"], Value(7));
}

TEST(BinaryPropertyListTest, KeysAreStrings) {
  BinaryFile file;
  file.objects = {file.dictionary({1, 1}), "\x10\x07"};
  EXPECT_EQ(failureOf(file.bytes()), "a key that is no string");
}

TEST(BinaryPropertyListTest, ADictionaryKeepsNoNone) {
  BinaryFile file;
  file.objects = {file.dictionary({1, 2, 3, 3}),
                  "\x51"
                  "a",
                  "\x51"
                  "b",
                  std::string(1, '\0')};
  EXPECT_EQ(valueOf(file.bytes()), Value(Dictionary{}));
}

TEST(BinaryPropertyListTest, CyclesAreRefused) {
  BinaryFile file;
  file.objects = {file.array({0})};
  EXPECT_EQ(failureOf(file.bytes()), "an object contains itself");
  file.objects = {file.array({1}), file.array({2}), file.array({3, 1}), "\x09"};
  EXPECT_EQ(failureOf(file.bytes()), "an object contains itself");
  file.objects = {file.dictionary({1, 0}),
                  "\x51"
                  "a"};
  EXPECT_EQ(failureOf(file.bytes()), "an object contains itself");
}

// Each level refers twice to the next: 2 to the 40th values in some hundred bytes.
TEST(BinaryPropertyListTest, ExpansionOfSharedReferencesIsBounded) {
  BinaryFile file;
  for (uint64_t i = 1; i <= 40; ++i) file.objects.push_back(file.array({i, i}));
  file.objects.push_back("\x09");
  EXPECT_EQ(failureOf(file.bytes()), "too many values");

  BinaryFile texts;
  const size_t length = 1 << 20;
  texts.objects = {texts.array(std::vector<uint64_t>(100, 1)),
                   "\x5F\x12" + bigEndian(length, 4) + std::string(length, 'x')};
  EXPECT_EQ(failureOf(texts.bytes()), "too large when written out");
}

TEST(BinaryPropertyListTest, ExpandedValuesAreCountedExactly) {
  BinaryFile file;
  file.objects = {file.array({1, 1}), file.array({2, 2}), "\x09"};
  EXPECT_EQ(failureOf(file.bytes(), {.maximumValues = 7}), "");
  EXPECT_EQ(failureOf(file.bytes(), {.maximumValues = 6}), "too many values");
}

// A shared object may be shallow where it is read first and too deep elsewhere.
TEST(BinaryPropertyListTest, DepthCountsAlongTheDeepestPath) {
  BinaryFile file;
  file.objects = {file.array({1, 2}), file.array({3}), file.array({4}), "\x09", file.array({1})};
  EXPECT_EQ(failureOf(file.bytes(), {.maximumDepth = 4}), "");
  EXPECT_EQ(failureOf(file.bytes(), {.maximumDepth = 3}), "nested too deep");
}

TEST(BinaryPropertyListTest, OverlappingObjectsAreRefused) {
  BinaryFile file;
  const size_t length = 1 << 16;
  std::vector<uint64_t> elements(1000);
  for (size_t i = 0; i < elements.size(); ++i) elements[i] = i + 1;
  file.objects = {file.array(elements), "\x5F\x12" + bigEndian(length, 4) + std::string(length, '\x5F')};
  file.offsets = {8};
  for (size_t i = 0; i < elements.size(); ++i) file.offsets.push_back(8 + file.objects[0].size());
  EXPECT_EQ(failureOf(file.bytes()), "objects overlap");
}

TEST(BinaryPropertyListTest, ObjectsStayInTheirPartOfTheFile) {
  const char* const beyond = "an object reaches beyond its part of the file";
  EXPECT_EQ(failureOfObject("\x55"
                            "abc"),
            beyond);
  EXPECT_EQ(failureOfObject("\x13"), beyond);
  EXPECT_EQ(failureOfObject("\x5F"), beyond);
  EXPECT_EQ(failureOfObject("\x5F\x13"), beyond);
  EXPECT_EQ(failureOfObject("\x4F\x13" + bigEndian(~uint64_t{0}, 8)), beyond);
  EXPECT_EQ(failureOfObject("\x6F\x13" + bigEndian(uint64_t{1} << 63, 8)), beyond);
  EXPECT_EQ(failureOfObject("\xAF\x13" + bigEndian(~uint64_t{0}, 8)), beyond);
  EXPECT_EQ(failureOfObject("\xDF\x13" + bigEndian(uint64_t{1} << 61, 8)), beyond);
  EXPECT_EQ(failureOfObject("\x5F\x14" + std::string(16, '\0')), "a count that is no integer");
  EXPECT_EQ(failureOfObject("\x5F\x09"), "a count that is no integer");
  EXPECT_EQ(failureOfObject(std::string("\xA1\x00\x01", 3)), "a reference to no object");
  EXPECT_EQ(failureOf(BinaryFile{.objects = {"\x09"}, .offsets = {7}}.bytes()),
            "an offset is outside of the file");
  EXPECT_EQ(failureOf(BinaryFile{.objects = {"\x09"}, .offsets = {9}}.bytes()),
            "an offset is outside of the file");
}

TEST(BinaryPropertyListTest, TrailerIsChecked) {
  const auto failureWith = [](auto change) {
    BinaryFile file{.objects = {"\x09", "\x09", "\x09"}, .offsets = {8}};
    change(file);
    return failureOf(file.bytes());
  };
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.count = 0; }), "the trailer names no object");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.top = 1; }), "the trailer names no object");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.count = 2; }), "the offset table is outside of the file");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.count = ~uint64_t{0}; }), "too many objects");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.table = 0; }), "the offset table is outside of the file");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.table = ~uint64_t{0}; }),
            "the offset table is outside of the file");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.offsetWidth = 0; }),
            "a width in the trailer is out of range");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.offsetWidth = 9; }),
            "a width in the trailer is out of range");
  EXPECT_EQ(failureWith([](BinaryFile& file) { file.referenceWidth = 0; }),
            "a width in the trailer is out of range");
  EXPECT_EQ(failureOf("bplist01" + std::string(40, '\0')), "an unknown version of the binary form");
  EXPECT_EQ(failureOf("bplist00"), "too short");
}

TEST(BinaryPropertyListTest, EveryCutAndEveryChangedByteIsSurvived) {
  const std::string bytes = serializeBinaryPropertyList(
      Dictionary{{"a", Array{1, 2.5, "text", "Größe", Dictionary{{"k", Value::data("x")}}}}, {"b", Date{1}}});
  for (size_t length = 0; length < bytes.size(); ++length) EXPECT_NE(failureOf(bytes.substr(0, length)), "");
  for (size_t place = 8; place < bytes.size(); ++place) {
    for (int change = 1; change < 256; ++change) {
      std::string changed = bytes;
      changed[place] = static_cast<char>(changed[place] ^ change);
      if (const auto value = parsePropertyList(changed)) {
        EXPECT_TRUE(parsePropertyList(serializeBinaryPropertyList(*value)));
      }
    }
  }
}

TEST(BinaryPropertyListTest, EqualStringsAreStoredOnce) {
  Array array;
  for (int i = 0; i < 1000; ++i) array.append(Dictionary{{"the same long key in every one of them", i}});
  const std::string bytes = serializeBinaryPropertyList(array);
  EXPECT_LT(bytes.size(), 15'000u);
  EXPECT_EQ(valueOf(bytes), Value(array));
}

}  // namespace
}  // namespace zun
