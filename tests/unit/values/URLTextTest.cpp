#include "values/URLText.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

TEST(URLTextTest, QueryKeepsItsAllowedCharactersAndEscapesTheBytesOfAllOthers) {
  const std::string_view allowed = "azAZ09-._~!$&'()*+,;=:@/?";
  EXPECT_EQ(percentEncodedForQuery(allowed), allowed);
  EXPECT_EQ(percentEncodedForQuery("a b#c%d\"<>[]\\^`{|}\n"),
            "a%20b%23c%25d%22%3C%3E%5B%5D%5C%5E%60%7B%7C%7D%0A");
  EXPECT_EQ(percentEncodedForQuery("ü€"), "%C3%BC%E2%82%AC");
  EXPECT_EQ(percentEncodedForQuery(""), "");
}

TEST(URLTextTest, DecodingUndoesEncoding) {
  std::string every;
  for (int byte = 1; byte < 256; ++byte) every += static_cast<char>(byte);
  EXPECT_EQ(percentDecoded(percentEncodedForQuery(every)), every);
  EXPECT_EQ(percentDecoded("%2"), std::nullopt);
  EXPECT_EQ(percentDecoded("%zz"), std::nullopt);
  EXPECT_EQ(percentDecoded("a%00b"), std::nullopt);
}

TEST(URLTextTest, RequestsGoToHTTPURLsWithAHostOnly) {
  for (const char* const url : {"https://host", "http://host/", "HTTPS://host:8443/a?b#c",
                                "https://user@host/", "https://[::1]:80/x", "https://höst/ü"})
    EXPECT_TRUE(isHTTPURL(url)) << url;
  for (const char* const url :
       {"", "host", "/path", "https:", "https:/host", "https://", "https:///path", "https://?q",
        "https://:80/", "https://user@/", "ftp://host/", "file:///a", "httpss://host", "xhttps://host",
        "https://ho st/", "https://host/\n", " https://host", "https://host/\x7f", "https://host/\t"})
    EXPECT_FALSE(isHTTPURL(url)) << url;
}

}  // namespace
}  // namespace zun
