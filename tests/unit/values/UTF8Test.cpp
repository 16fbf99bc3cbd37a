#include "values/UTF8.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

TEST(UTF8Test, AcceptsEveryScalarValueAndNothingElse) {
  for (char32_t character = 0; character <= 0x10FFFF; character += character < 0x11000 ? 1 : 251) {
    if (character >= 0xD800 && character < 0xE000) continue;
    std::string text;
    appendUTF8(text, character);
    EXPECT_TRUE(isValidUTF8(text)) << static_cast<uint32_t>(character);
    for (size_t length = 1; length < text.size(); ++length) EXPECT_FALSE(isValidUTF8(text.substr(0, length)));
    EXPECT_FALSE(isValidUTF8(text + "\x80"));
  }
  for (const char* text : {"\x80", "\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
                           "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xE6\x97z"}) {
    EXPECT_FALSE(isValidUTF8(text));
  }
}

TEST(UTF8Test, LowerCaseIsThatOfEveryAlphabetAndOfOneLetterForOne) {
  EXPECT_EQ(lowerCased("ABC xyz @[`{ 09"), "abc xyz @[`{ 09");
  EXPECT_EQ(lowerCased("GRÖẞE \u00C9COLE ΣΟΦΟΣ ЖУК"), "größe école σοφοσ жук");
  EXPECT_EQ(lowerCased("\U00010400"), "\U00010428");  // four bytes
  EXPECT_EQ(lowerCased("\u023A"), "\u2C65");          // two bytes become three
  EXPECT_EQ(lowerCased("A\xFF"
                       "B\xE6\x97"),
            "a\xFF"
            "b\xE6\x97");
  EXPECT_EQ(lowerCased(""), "");
}

TEST(UTF8Test, ASCIIIsWhatHasNoHighBit) {
  EXPECT_TRUE(isASCII(""));
  for (size_t length = 1; length < 20; ++length) {
    std::string text(length, '\x7F');
    EXPECT_TRUE(isASCII(text));
    for (size_t at = 0; at < length; ++at) {
      text[at] = '\x80';
      EXPECT_FALSE(isASCII(text)) << length << " " << at;
      text[at] = 'a';
    }
  }
}

TEST(UTF8Test, ReplacesBytesThatBelongToNoCharacter) {
  EXPECT_EQ(replacingInvalidUTF8(""), "");
  EXPECT_EQ(replacingInvalidUTF8("Größe"), "Größe");
  EXPECT_EQ(replacingInvalidUTF8("12345678\xFF"
                                 "9\xE6\x97"),
            "12345678\uFFFD9\uFFFD\uFFFD");
  EXPECT_EQ(validUTF8Prefix("1234567890\xFF"), 10u);
}

TEST(LetterCaseTest, IsIgnoredBeyondASCIIToo) {
  EXPECT_FALSE(containsIgnoringCase("Die GRÖSSE", "größe"));  // one letter is not two
  EXPECT_TRUE(containsIgnoringCase("HÄUSER am See", "äu"));
  EXPECT_TRUE(containsIgnoringCase("Häuser AM", "am"));
  EXPECT_FALSE(containsIgnoringCase("hauser", "äu"));
  EXPECT_TRUE(equalsIgnoringCase("ÜBER", "über"));
  EXPECT_TRUE(equalsIgnoringCase("\u023A", "\u2C65"));
  EXPECT_FALSE(equalsIgnoringCase("über", "uber"));
  EXPECT_FALSE(equalsIgnoringCase("ü", "ö"));
}

TEST(LetterCaseTest, ContainsIgnoresIt) {
  EXPECT_TRUE(containsIgnoringCase("RearCamera", "cam"));
  EXPECT_TRUE(containsIgnoringCase("cam", "CAM"));
  EXPECT_FALSE(containsIgnoringCase("ca", "cam"));
  EXPECT_FALSE(containsIgnoringCase("anything", ""));
  EXPECT_FALSE(containsIgnoringCase("", ""));
}

TEST(LetterCaseTest, EqualsIgnoresIt) {
  EXPECT_TRUE(equalsIgnoringCase("Bar", "bar"));
  EXPECT_TRUE(equalsIgnoringCase("", ""));
  EXPECT_FALSE(equalsIgnoringCase("bar", "bar "));
  EXPECT_FALSE(equalsIgnoringCase("@", "`"));  // 32 apart, but no letters
}

TEST(LetterCaseTest, OfASCIILettersAloneIsIgnored) {
  EXPECT_TRUE(equalsIgnoringASCIICase("X-aZ9", "x-Az9"));
  EXPECT_TRUE(equalsIgnoringASCIICase("", ""));
  EXPECT_FALSE(equalsIgnoringASCIICase("a", "ab"));
  EXPECT_FALSE(equalsIgnoringASCIICase("@[", "`{"));  // 32 apart, but no letters
  EXPECT_FALSE(equalsIgnoringASCIICase("Ä", "ä"));
}

TEST(TrimmedTest, BlanksGoAtBothEndsAndStayInside) {
  EXPECT_EQ(trimmed("\r\n\t a b \t\r\n"), "a b");
  EXPECT_EQ(trimmed("ab"), "ab");
  EXPECT_EQ(trimmed(" \t"), "");
  EXPECT_EQ(trimmed(""), "");
  EXPECT_EQ(trimmed("xxaxbxx", "x"), "axb");
}

}  // namespace
}  // namespace zun
