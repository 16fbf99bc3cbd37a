#include "util/Compression.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <new>

namespace zun {

namespace {

constexpr int kMemoryLevel = 8;

const char* setUpMessage(int code) {
  switch (code) {
    case Z_VERSION_ERROR: return "The version of zlib.h and the version of the library linked do not match.";
    case Z_MEM_ERROR: return "Insufficient memory.";
    case Z_STREAM_ERROR: return "Invalid parameter passed in to function.";
    default: return "Unknown error code.";
  }
}

const char* compressionMessage(int code) {
  switch (code) {
    case Z_VERSION_ERROR: return "The version of zlib.h and the version of the library linked do not match.";
    case Z_BUF_ERROR: return "Ran out of output buffer for writing compressed bytes.";
    case Z_MEM_ERROR: return "Memory could not be allocated for processing.";
    case Z_DATA_ERROR: return "The deflate data was invalid or incomplete.";
    case Z_STREAM_ERROR: return "The stream state was inconsistent (e.g., next_in or next_out was NULL).";
    case Z_ERRNO: return "Error occured while reading file.";
    default: return "Unknown error code.";
  }
}

/// A deflate stream that ends with its scope.
class DeflateStream final {
 public:
  explicit DeflateStream(CompressionWrapper wrapper)
      : status_(deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED,
                             wrapper == CompressionWrapper::kGzip ? MAX_WBITS + 16 : MAX_WBITS, kMemoryLevel,
                             Z_DEFAULT_STRATEGY)) {}
  ~DeflateStream() {
    if (status_ == Z_OK) deflateEnd(&stream_);
  }
  DeflateStream(const DeflateStream&) = delete;
  DeflateStream& operator=(const DeflateStream&) = delete;

  int setUpStatus() const { return status_; }
  const char* message() const { return stream_.msg != nullptr ? stream_.msg : "(null)"; }

  size_t bound(size_t length) { return deflateBound(&stream_, static_cast<uLong>(length)); }

  /// All of `bytes` into `output`, which has its final size before and is cut after.
  /// zlib counts in 32 bits, so what is longer goes in pieces.
  int compress(std::string_view bytes, std::string& output) {
    constexpr size_t kPiece = std::numeric_limits<uInt>::max();
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    int status = Z_OK;
    while (status == Z_OK) {
      const size_t left = bytes.size() - stream_.total_in;
      stream_.avail_in = static_cast<uInt>(std::min(left, kPiece));
      stream_.next_out = reinterpret_cast<Bytef*>(output.data()) + stream_.total_out;
      stream_.avail_out = static_cast<uInt>(std::min(output.size() - stream_.total_out, kPiece));
      status = deflate(&stream_, left <= kPiece ? Z_FINISH : Z_NO_FLUSH);
    }
    if (status == Z_STREAM_END) output.resize(stream_.total_out);
    return status;
  }

 private:
  z_stream stream_{};
  int status_;
};

}  // namespace

std::optional<std::string> compressDataWithZlibOrGzip(CompressionWrapper wrapper, std::string_view bytes,
                                                      SystemLog& log) {
  if (bytes.empty()) {
    log.error("compressDataWithZlibOrGzip: Cannot compress empty NSData");
    return std::nullopt;
  }
  DeflateStream stream(wrapper);
  if (stream.setUpStatus() != Z_OK) {
    log.error("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"{}\"",
              setUpMessage(stream.setUpStatus()), stream.message());
    return std::nullopt;
  }
  std::string output;
  int status = Z_MEM_ERROR;
  try {
    output.resize(stream.bound(bytes.size()));
    status = stream.compress(bytes, output);
  } catch (const std::bad_alloc&) {
    status = Z_MEM_ERROR;
  }
  if (status != Z_STREAM_END) {
    log.error("compressDataWithZlibOrGzip: zlib error while attempting compression: \"{}\" Message: \"{}\"",
              compressionMessage(status), stream.message());
    return std::nullopt;
  }
  log.debug("compressDataWithZlibOrGzip: Compressed file from {} to {}", static_cast<uint32_t>(bytes.size()),
            static_cast<uint32_t>(output.size()));
  return output;
}

std::optional<std::string> gzipDeflate(std::string_view bytes, SystemLog& log) {
  return compressDataWithZlibOrGzip(CompressionWrapper::kGzip, bytes, log);
}

}  // namespace zun
