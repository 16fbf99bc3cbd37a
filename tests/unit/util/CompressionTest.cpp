#include "util/Compression.h"

#include <zlib.h>

#include <random>

#include "support/TestPlatform.h"

namespace zun {
namespace {

class CompressionTest : public PlatformTest {
 protected:
  // Inflates with zlib itself; `windowBits` says which wrapper is demanded.
  static std::string inflated(const std::string& bytes, int windowBits, size_t expectedLength) {
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, windowBits), Z_OK);
    std::string output(expectedLength + 1, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(output.data());
    stream.avail_out = static_cast<uInt>(output.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    output.resize(stream.total_out);
    EXPECT_EQ(stream.avail_in, 0U) << "bytes after the end of the stream";
    inflateEnd(&stream);
    return output;
  }

  static constexpr int kGzipOnly = 31;
  static constexpr int kZlibOnly = 15;
};

TEST_F(CompressionTest, OneByteBecomesAGzipStreamThatInflatesToIt) {
  const auto compressed = compressDataWithZlibOrGzip(CompressionWrapper::kGzip, "x", platform_.log);
  ASSERT_TRUE(compressed);
  EXPECT_EQ(compressed->substr(0, 2), "\x1f\x8b");
  EXPECT_EQ(inflated(*compressed, kGzipOnly, 1), "x");
  expectDebugLine(
      fmt::format("compressDataWithZlibOrGzip: Compressed file from 1 to {}", compressed->size()));
}

TEST_F(CompressionTest, ZlibWrapperIsNotGzip) {
  const std::string text(1000, 'a');
  const auto compressed = compressDataWithZlibOrGzip(CompressionWrapper::kZlib, text, platform_.log);
  ASSERT_TRUE(compressed);
  EXPECT_EQ((*compressed)[0], '\x78');
  EXPECT_EQ(inflated(*compressed, kZlibOnly, text.size()), text);
}

TEST_F(CompressionTest, GzipDeflateIsTheGzipWrapper) {
  EXPECT_EQ(gzipDeflate("body", platform_.log),
            compressDataWithZlibOrGzip(CompressionWrapper::kGzip, "body", platform_.log));
}

TEST_F(CompressionTest, EmptyInputIsAnErrorLineAndNothing) {
  EXPECT_FALSE(compressDataWithZlibOrGzip(CompressionWrapper::kGzip, "", platform_.log));
  EXPECT_FALSE(gzipDeflate("", platform_.log));
  expectErrors({"compressDataWithZlibOrGzip: Cannot compress empty NSData",
                "compressDataWithZlibOrGzip: Cannot compress empty NSData"});
}

// The output buffer is never grown, so what does not compress must fit its bound.
TEST_F(CompressionTest, BytesThatDoNotCompressFitTheBound) {
  std::mt19937 generator(7);
  for (const size_t length : {2U, 100U, 65536U, 1U << 20}) {
    std::string noise(length, '\0');
    for (char& byte : noise) byte = static_cast<char>(generator());
    const auto compressed = gzipDeflate(noise, platform_.log);
    ASSERT_TRUE(compressed) << length;
    EXPECT_EQ(inflated(*compressed, kGzipOnly, length), noise);
  }
}

TEST_F(CompressionTest, ZeroBytesAreContent) {
  const std::string zeros(5000, '\0');
  const auto compressed = gzipDeflate(zeros, platform_.log);
  ASSERT_TRUE(compressed);
  EXPECT_LT(compressed->size(), 100U);
  EXPECT_EQ(inflated(*compressed, kGzipOnly, zeros.size()), zeros);
}

// --- In pieces ---------------------------------------------------------------------

TEST_F(CompressionTest, PiecesBecomeOneStream) {
  std::mt19937 generator(9);
  std::string all;
  std::string compressed;
  const StreamingCompressor::Sink sink = [&](std::string_view bytes) {
    compressed += bytes;
    return true;
  };
  const auto compressor = StreamingCompressor::create(CompressionWrapper::kGzip, platform_.log);
  ASSERT_NE(compressor, nullptr);
  for (const size_t length : {1U, 0U, 70'000U, 3U, 300'000U}) {
    std::string piece(length, '\0');
    for (char& byte : piece) byte = static_cast<char>(generator());
    ASSERT_TRUE(compressor->add(piece, sink));
    all += piece;
  }
  ASSERT_TRUE(compressor->finish(sink));
  EXPECT_EQ(inflated(compressed, kGzipOnly, all.size()), all);
  expectDebugLine(fmt::format("compressDataWithZlibOrGzip: Compressed file from {} to {}", all.size(),
                              compressed.size()));
}

TEST_F(CompressionTest, StreamOfOnePieceIsWhatCompressingItAtOnceGives) {
  for (const CompressionWrapper wrapper : {CompressionWrapper::kGzip, CompressionWrapper::kZlib}) {
    std::string compressed;
    const StreamingCompressor::Sink sink = [&](std::string_view bytes) {
      compressed += bytes;
      return true;
    };
    const auto compressor = StreamingCompressor::create(wrapper, platform_.log);
    ASSERT_TRUE(compressor->add("some text, some text", sink) && compressor->finish(sink));
    EXPECT_EQ(compressed, compressDataWithZlibOrGzip(wrapper, "some text, some text", platform_.log));
  }
}

TEST_F(CompressionTest, SinkThatWantsNoMoreEndsTheCompression) {
  std::string noise(1 << 20, '\0');
  std::mt19937 generator(3);
  for (char& byte : noise) byte = static_cast<char>(generator());
  int calls = 0;
  const auto compressor = StreamingCompressor::create(CompressionWrapper::kGzip, platform_.log);
  EXPECT_FALSE(compressor->add(noise, [&calls](std::string_view) { return ++calls < 2; }));
  EXPECT_EQ(calls, 2);
}

TEST_F(CompressionTest, StreamOfNothingIsAnErrorLine) {
  const auto compressor = StreamingCompressor::create(CompressionWrapper::kGzip, platform_.log);
  EXPECT_FALSE(compressor->finish([](std::string_view) { return true; }));
  expectErrors({"compressDataWithZlibOrGzip: Cannot compress empty NSData"});
}

}  // namespace
}  // namespace zun
