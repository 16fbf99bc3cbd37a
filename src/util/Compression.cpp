#include "util/Compression.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

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

void logSetUpFailure(SystemLog& log, int code, const char* message) {
  log.error("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"{}\"", setUpMessage(code),
            message);
}

void logFailure(SystemLog& log, int code, const char* message) {
  log.error("compressDataWithZlibOrGzip: zlib error while attempting compression: \"{}\" Message: \"{}\"",
            compressionMessage(code), message);
}

void logSuccess(SystemLog& log, size_t from, size_t to) {
  log.debug("compressDataWithZlibOrGzip: Compressed file from {} to {}", static_cast<uint32_t>(from),
            static_cast<uint32_t>(to));
}

}  // namespace

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

  /// Sets what `deflateInto` takes next; zlib counts it in 32 bits.
  void setInput(std::string_view bytes) {
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream_.avail_in = static_cast<uInt>(bytes.size());
  }
  /// One step into `buffer`; sets `count` to the bytes that it has then.
  int deflateInto(std::string& buffer, int flush, size_t& count) {
    stream_.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream_.avail_out = static_cast<uInt>(buffer.size());
    const int status = deflate(&stream_, flush);
    count = buffer.size() - stream_.avail_out;
    return status;
  }
  size_t totalIn() const { return stream_.total_in; }
  size_t totalOut() const { return stream_.total_out; }

 private:
  z_stream stream_{};
  int status_;
};

std::optional<std::string> compressDataWithZlibOrGzip(CompressionWrapper wrapper, std::string_view bytes,
                                                      SystemLog& log) {
  if (bytes.empty()) {
    log.error("compressDataWithZlibOrGzip: Cannot compress empty NSData");
    return std::nullopt;
  }
  DeflateStream stream(wrapper);
  if (stream.setUpStatus() != Z_OK) {
    logSetUpFailure(log, stream.setUpStatus(), stream.message());
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
    logFailure(log, status, stream.message());
    return std::nullopt;
  }
  logSuccess(log, bytes.size(), output.size());
  return output;
}

// MARK: - In pieces

namespace {
constexpr size_t kOutputBytes = size_t{64} << 10;
}  // namespace

StreamingCompressor::StreamingCompressor(std::unique_ptr<DeflateStream> stream, SystemLog& log)
    : stream_(std::move(stream)), log_(log), output_(kOutputBytes, '\0') {}

StreamingCompressor::~StreamingCompressor() = default;

std::unique_ptr<StreamingCompressor> StreamingCompressor::create(CompressionWrapper wrapper,
                                                                 SystemLog& log) try {
  auto stream = std::make_unique<DeflateStream>(wrapper);
  if (stream->setUpStatus() != Z_OK) {
    logSetUpFailure(log, stream->setUpStatus(), stream->message());
    return nullptr;
  }
  return std::unique_ptr<StreamingCompressor>(new StreamingCompressor(std::move(stream), log));
} catch (const std::bad_alloc&) {
  logSetUpFailure(log, Z_MEM_ERROR, "(null)");
  return nullptr;
}

bool StreamingCompressor::add(std::string_view bytes, const Sink& sink) {
  constexpr size_t kPiece = std::numeric_limits<uInt>::max();
  while (!bytes.empty()) {
    if (!push(bytes.substr(0, kPiece), Z_NO_FLUSH, sink)) return false;
    bytes.remove_prefix(std::min(bytes.size(), kPiece));
  }
  return true;
}

bool StreamingCompressor::finish(const Sink& sink) {
  if (stream_->totalIn() == 0) {
    log_.error("compressDataWithZlibOrGzip: Cannot compress empty NSData");
    return false;
  }
  if (!push({}, Z_FINISH, sink)) return false;
  logSuccess(log_, stream_->totalIn(), stream_->totalOut());
  return true;
}

/// Until the input is used up; at the end, until the stream has said so.
bool StreamingCompressor::push(std::string_view bytes, int flush, const Sink& sink) {
  stream_->setInput(bytes);
  while (true) {
    size_t count = 0;
    const int status = stream_->deflateInto(output_, flush, count);
    if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) {
      logFailure(log_, status, stream_->message());
      return false;
    }
    if (count > 0 && !sink({output_.data(), count})) return false;
    if (count < output_.size()) return true;  // had room left: all is out
  }
}

std::optional<std::string> gzipDeflate(std::string_view bytes, SystemLog& log) {
  return compressDataWithZlibOrGzip(CompressionWrapper::kGzip, bytes, log);
}

}  // namespace zun
