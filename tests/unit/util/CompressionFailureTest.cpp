// What zlib is asked for and what becomes of its errors. Its two functions are replaced in
// this program; they hand on to zlib itself unless a test says otherwise.

#include <dlfcn.h>
#include <zlib.h>

#include "support/TestPlatform.h"
#include "util/Compression.h"

namespace {

struct ZlibParameters {
  int level, method, windowBits, memoryLevel, strategy;
  friend bool operator==(const ZlibParameters&, const ZlibParameters&) = default;
};

struct Failure {
  int code = Z_OK;
  char* message = nullptr;
};

thread_local ZlibParameters lastParameters;
thread_local Failure setUpFailure;
thread_local Failure deflateFailure;

int fail(z_streamp stream, const Failure& failure) {
  stream->msg = failure.message;
  return failure.code;
}

template <typename Function>
Function* zlibsOwn(Function* /*replacement*/, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memLevel,
                             int strategy, const char* version, int size) {
  lastParameters = {level, method, windowBits, memLevel, strategy};
  if (setUpFailure.code != Z_OK) return fail(stream, setUpFailure);
  return zlibsOwn(deflateInit2_, "deflateInit2_")(stream, level, method, windowBits, memLevel, strategy,
                                                  version, size);
}

extern "C" int deflate(z_streamp stream, int flush) {
  if (deflateFailure.code != Z_OK) return fail(stream, deflateFailure);
  return zlibsOwn(deflate, "deflate")(stream, flush);
}

namespace zun {
namespace {

class CompressionFailureTest : public PlatformTest {
 protected:
  ~CompressionFailureTest() override { setUpFailure = deflateFailure = {}; }

  void expectSetUpLine(int code, const std::string& text) {
    setUpFailure.code = code;
    const std::string line = "compressDataWithZlibOrGzip: deflateInit2() Error: \"" + text + "\" Message: \"";
    EXPECT_FALSE(gzipDeflate("x", platform_.log));
    setUpFailure.message = text_.data();
    EXPECT_EQ(StreamingCompressor::create(CompressionWrapper::kZlib, platform_.log), nullptr);
    expectErrors({line + "(null)\"", line + "zlib's own\""});
    setUpFailure = {};
  }

  void expectCompressionLine(int code, const std::string& text) {
    const std::string line =
        "compressDataWithZlibOrGzip: zlib error while attempting compression: \"" + text + "\" Message: \"";
    deflateFailure.code = code;
    EXPECT_FALSE(gzipDeflate("x", platform_.log));
    deflateFailure.message = text_.data();
    EXPECT_FALSE(gzipDeflate("x", platform_.log));
    expectErrors({line + "(null)\"", line + "zlib's own\""});
    deflateFailure = {};
  }

 private:
  std::string text_ = "zlib's own";
};

TEST_F(CompressionFailureTest, EachSetUpErrorHasItsText) {
  expectSetUpLine(Z_VERSION_ERROR,
                  "The version of zlib.h and the version of the library linked do not match.");
  expectSetUpLine(Z_MEM_ERROR, "Insufficient memory.");
  expectSetUpLine(Z_STREAM_ERROR, "Invalid parameter passed in to function.");
  expectSetUpLine(Z_BUF_ERROR, "Unknown error code.");
}

TEST_F(CompressionFailureTest, EachCompressionErrorHasItsText) {
  expectCompressionLine(Z_VERSION_ERROR,
                        "The version of zlib.h and the version of the library linked do not match.");
  expectCompressionLine(Z_BUF_ERROR, "Ran out of output buffer for writing compressed bytes.");
  expectCompressionLine(Z_MEM_ERROR, "Memory could not be allocated for processing.");
  expectCompressionLine(Z_DATA_ERROR, "The deflate data was invalid or incomplete.");
  expectCompressionLine(Z_STREAM_ERROR,
                        "The stream state was inconsistent (e.g., next_in or next_out was NULL).");
  expectCompressionLine(Z_ERRNO, "Error occured while reading file.");
  expectCompressionLine(Z_NEED_DICT, "Unknown error code.");
}

TEST_F(CompressionFailureTest, StreamThatFailsTellsItTheSameWay) {
  const auto compressor = StreamingCompressor::create(CompressionWrapper::kGzip, platform_.log);
  const auto sink = [](std::string_view) { return true; };
  deflateFailure.code = Z_DATA_ERROR;
  EXPECT_FALSE(compressor->add("x", sink));
  expectErrors(
      {"compressDataWithZlibOrGzip: zlib error while attempting compression: \"The deflate data "
       "was invalid or incomplete.\" Message: \"(null)\""});
}

TEST_F(CompressionFailureTest, ZlibIsAskedForTheDefaultLevelAndMemoryLevelEight) {
  EXPECT_TRUE(gzipDeflate("x", platform_.log));
  EXPECT_EQ(lastParameters, (ZlibParameters{Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY}));
  EXPECT_TRUE(compressDataWithZlibOrGzip(CompressionWrapper::kZlib, "x", platform_.log));
  EXPECT_EQ(lastParameters, (ZlibParameters{Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15, 8, Z_DEFAULT_STRATEGY}));
}

}  // namespace
}  // namespace zun
