#include "values/GzipReader.h"

#include <array>

namespace zun {

namespace {

constexpr int kGzipWindowBits = MAX_WBITS + 16;  // a gzip wrapper, nothing else
constexpr size_t kPieceBytes = 64 << 10;

}  // namespace

GzipReader::GzipReader() : isReady_(inflateInit2(&stream_, kGzipWindowBits) == Z_OK) {}

GzipReader::~GzipReader() {
  if (isReady_) inflateEnd(&stream_);
}

bool GzipReader::feed(std::string_view bytes, const Sink& sink) {
  if (!isReady_) return false;
  std::array<char, kPieceBytes> piece;
  stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream_.avail_in = static_cast<uInt>(bytes.size());
  // A full piece may have more behind it that needs no further input.
  do {
    if (isAtTheEnd_) return stream_.avail_in == 0;  // what follows the stream belongs to nothing
    stream_.next_out = reinterpret_cast<Bytef*>(piece.data());
    stream_.avail_out = kPieceBytes;
    const int result = inflate(&stream_, Z_NO_FLUSH);
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return false;
    const size_t count = kPieceBytes - stream_.avail_out;
    if (count > 0 && !sink({piece.data(), count})) return false;
    isAtTheEnd_ = result == Z_STREAM_END;
  } while (stream_.avail_in > 0 || stream_.avail_out == 0);
  return true;
}

}  // namespace zun
