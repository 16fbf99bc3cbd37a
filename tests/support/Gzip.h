#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zun {

/// A gzip stream inflated with zlib itself, piece by piece; `take` hears the pieces.
template <typename Take>
void inflateGzip(std::string_view bytes, Take take) {
  z_stream stream{};
  ASSERT_EQ(inflateInit2(&stream, MAX_WBITS + 16), Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  std::vector<char> piece(size_t{1} << 20);
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(piece.data());
    stream.avail_out = static_cast<uInt>(piece.size());
    status = inflate(&stream, Z_NO_FLUSH);
    take(std::string_view(piece.data(), piece.size() - stream.avail_out));
  }
  EXPECT_EQ(status, Z_STREAM_END);
  EXPECT_EQ(stream.avail_in, 0U) << "bytes after the end of the stream";
  inflateEnd(&stream);
}

inline std::string gzipped(std::string_view bytes) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, MAX_WBITS + 16, 8, Z_DEFAULT_STRATEGY),
            Z_OK);
  std::string out(deflateBound(&stream, bytes.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

inline std::string inflatedGzip(std::string_view bytes) {
  std::string all;
  inflateGzip(bytes, [&all](std::string_view piece) { all += piece; });
  return all;
}

}  // namespace zun
