#include "platform/FileManager.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace zun {
namespace {

TEST(FileAttributesTest, DescriptionIsOneLine) {
  const FileAttributes attributes{.size = 5, .modificationDate = {2000.25}, .creationDate = Date{1000.5}};
  EXPECT_EQ(attributes.description(),
            "{size = 5; modificationDate = 2000.250000; creationDate = 1000.500000; isDirectory = false}");
}

TEST(FileURLTest, PathsAreEncodedAndDecoded) {
  for (const std::string path : {"/a/b.txt", "/with blank/100%", "/Größe/日本", "/q?x=1#f", "/a+b&c=d;e",
                                 "/\x01\x7f", "/", "/a//b/"}) {
    const std::string url = fileURLOfPath(path);
    EXPECT_EQ(url.find_first_of(" ?#\x01\x7f"), std::string::npos) << url;
    EXPECT_EQ(pathOfFileURL(url), path);
  }
  EXPECT_EQ(fileURLOfPath("/a b/ü"), "file:///a%20b/%C3%BC");
}

TEST(FileURLTest, AcceptsTheFormsOfAFileURLAndNothingElse) {
  EXPECT_EQ(pathOfFileURL("file:///a"), "/a");
  EXPECT_EQ(pathOfFileURL("FILE:/a"), "/a");
  EXPECT_EQ(pathOfFileURL("file://localhost/a"), "/a");
  EXPECT_EQ(pathOfFileURL("file:///a?query#fragment"), "/a");
  for (const char* url : {"", "/a", "http:///a", "file:", "file://", "file:a", "file://host/a", "file:///a%2",
                          "file:///a%zz", "file:///a%00b", "fil"}) {
    EXPECT_EQ(pathOfFileURL(url), std::nullopt) << url;
  }
}

}  // namespace
}  // namespace zun
