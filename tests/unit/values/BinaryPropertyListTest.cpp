#include "PropertyListTest.h"

namespace zun {
namespace {

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
  for (const char* const number : {"\x13", "\x22", "\x23", "\x33"}) {
    EXPECT_EQ(failureOfObject(number), beyond);
  }
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

TEST(BinaryPropertyListTest, ACountMayBeTheLastOfTheObjects) {
  const char* const beyond = "an object reaches beyond its part of the file";
  EXPECT_EQ(valueOfObject(object(std::string_view("\x4F\x10\x00", 3))), Value::data(""));
  EXPECT_EQ(valueOfObject(object(std::string_view("\x5F\x11\x00\x00", 4))), Value(""));
  EXPECT_EQ(valueOfObject(object(std::string_view("\x6F\x10\x00", 3))), Value(""));
  EXPECT_EQ(valueOfObject(object(std::string_view("\xAF\x10\x00", 3))), Value(Array{}));
  EXPECT_EQ(valueOfObject(object(std::string_view("\xDF\x10\x00", 3))), Value(Dictionary{}));
  for (const char* const cut : {"\x4F\x10", "\x5F\x11\x01", "\x6F\x10", "\xAF\x10", "\xDF\x10"}) {
    EXPECT_EQ(failureOfObject(cut), beyond);
  }
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
