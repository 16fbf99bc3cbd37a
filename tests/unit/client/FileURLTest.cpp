#include "FileURL.h"

#include <gtest/gtest.h>

namespace zunreporting {
namespace {

TEST(FileURLTest, PathsOfUnreservedCharactersStandAsTheyAre) {
  EXPECT_EQ(fileURL("/var/log/a-b_c.d~1"), "file:///var/log/a-b_c.d~1");
}

TEST(FileURLTest, EveryOtherByteIsPercentEncoded) {
  EXPECT_EQ(fileURL("/a b%c#d?e"), "file:///a%20b%25c%23d%3Fe");
  EXPECT_EQ(fileURL("/h\xC3\xA4h"), "file:///h%C3%A4h");
  EXPECT_EQ(fileURL("/\xFF\x01\n"), "file:///%FF%01%0A");
  EXPECT_EQ(fileURL("/a:b;c&d=e+f"), "file:///a%3Ab%3Bc%26d%3De%2Bf");
}

}  // namespace
}  // namespace zunreporting
