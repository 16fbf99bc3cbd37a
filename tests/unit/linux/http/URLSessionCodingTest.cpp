// How bodies may come: as they are, or as one gzip stream that was asked for.

#include <zlib.h>

#include "support/Gzip.h"
#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

class URLSessionCodingTest : public URLSessionTest {
 protected:
  HeardTask getCoded(const std::string& body, const TestHeaders& headers) {
    server_.answer("/z", {.body = body, .headers = headers});
    return get(server_.url("/z"));
  }
  void expectBadResponse(const HeardTask& heard, const std::string& why) {
    EXPECT_TRUE(heard.failedWith(URLSessionError::kBadServerResponse));
    ASSERT_TRUE(heard.error);
    EXPECT_EQ(heard.error->description, why);
    EXPECT_EQ(heard.data, "");
    ASSERT_TRUE(heard.response);
    EXPECT_EQ(heard.response->statusCode, 200);
  }
};

/// A gzip stream of empty blocks, which may go on for ever and says nothing.
std::string emptyBlocks(size_t count) {
  std::string stream("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10);
  for (size_t i = 0; i < count; ++i) stream.append("\0\0\0\xff\xff", 5);
  return stream;
}

// Each further coding multiplies the work that a byte on the wire makes.
TEST_F(URLSessionCodingTest, SeveralCodingsAreRefusedUnread) {
  const std::string twice = gzipped(gzipped("text"));
  expectBadResponse(getCoded(twice, {{"Content-Encoding", "gzip, gzip"}}),
                    "the body has several codings: gzip, gzip");
  expectBadResponse(getCoded(twice, {{"Content-Encoding", "gzip"}, {"content-encoding", "gzip"}}),
                    "the body has several codings: gzip, gzip");
}

TEST_F(URLSessionCodingTest, CodingThatWasNotAskedForIsRefused) {
  for (const char* coding : {"deflate", "br", "zstd", "compress"}) {
    expectBadResponse(getCoded("whatever", {{"Content-Encoding", coding}}),
                      "the body has a coding that was not asked for: " + std::string(coding));
  }
}

TEST_F(URLSessionCodingTest, ErrorTellsALittleOfTheServersTextAndNoControls) {
  expectBadResponse(getCoded("whatever", {{"Content-Encoding", "a\tb\xff" + std::string(1000, 'c')}}),
                    "the body has a coding that was not asked for: a?b?" + std::string(60, 'c'));
}

TEST_F(URLSessionCodingTest, GzipHasAnOldNameAndAnyLetterCase) {
  for (const char* coding : {"GZip", "x-gzip", " gzip ,"})
    EXPECT_EQ(getCoded(gzipped("text"), {{"Content-Encoding", coding}}).data, "text") << coding;
}

TEST_F(URLSessionCodingTest, IdentityIsNoCoding) {
  EXPECT_EQ(getCoded("text", {{"Content-Encoding", "identity"}}).data, "text");
}

// The HTTP library would decode these as well, stacked ones too.
TEST_F(URLSessionCodingTest, TransferCodingsBesideChunksAreRefused) {
  for (const char* coding : {"gzip, chunked", "gzip, gzip, gzip, chunked", "gzip"}) {
    expectBadResponse(getCoded("0\r\n\r\n", {{"Transfer-Encoding", coding}}),
                      "the answer has a transfer coding that was not asked for: " + std::string(coding));
  }
  expectBadResponse(getCoded("0\r\n\r\n", {{"Transfer-Encoding", "chunked"}, {"Transfer-Encoding", "gzip"}}),
                    "the answer has a transfer coding that was not asked for: chunked, gzip");
}

TEST_F(URLSessionCodingTest, StreamThatBreaksOffIsAnError) {
  const std::string whole = gzipped("text");
  const HeardTask heard = getCoded(whole.substr(0, whole.size() - 1), {{"Content-Encoding", "gzip"}});
  EXPECT_TRUE(heard.failedWith(URLSessionError::kBadServerResponse));
  EXPECT_EQ(heard.error->description, "the body's gzip stream breaks off");
}

TEST_F(URLSessionCodingTest, NothingFollowsTheStream) {
  for (const std::string& more : {std::string("x"), gzipped("a second member")}) {
    const HeardTask heard = getCoded(gzipped("text") + more, {{"Content-Encoding", "gzip"}});
    EXPECT_TRUE(heard.failedWith(URLSessionError::kBadServerResponse));
    EXPECT_EQ(heard.error->description, "bytes follow the body's gzip stream");
  }
}

TEST_F(URLSessionCodingTest, NoBytesAreNoStreamThatBreaksOff) {
  const HeardTask heard = getCoded("", {{"Content-Encoding", "gzip"}});
  EXPECT_FALSE(heard.error);
  EXPECT_EQ(heard.data, "");
}

// It decodes to nothing, but its bytes are read and looked at.
TEST_F(URLSessionCodingTest, WhatDecodesToNothingIsBoundedByItsOwnBytes) {
  start({.maxResponseBytes = 1000});
  EXPECT_EQ(getCoded(emptyBlocks(190), {{"Content-Encoding", "gzip"}}).error->description,
            "the body's gzip stream breaks off");
  EXPECT_TRUE(getCoded(emptyBlocks(200), {{"Content-Encoding", "gzip"}})
                  .failedWith(URLSessionError::kResponseTooLarge));
}

TEST_F(URLSessionCodingTest, ErrorStatusWithACodingThatWasNotAskedForKeepsItsResponse) {
  server_.answer("/z", {.status = 503, .body = "x", .headers = {{"Content-Encoding", "br"}}});
  const HeardTask heard = get(server_.url("/z"));
  EXPECT_TRUE(heard.failedWith(URLSessionError::kBadServerResponse));
  EXPECT_EQ(heard.response->statusCode, 503);
}

}  // namespace
}  // namespace zun
