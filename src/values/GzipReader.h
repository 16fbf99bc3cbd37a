#pragma once

#include <zlib.h>

#include <functional>
#include <string_view>

namespace zun {

/// Decompresses a gzip stream piece by piece. Unlike a decompressor that only follows the
/// stream, it knows whether the stream has come to its end. One thread.
class GzipReader final {
 public:
  /// Takes decompressed bytes; false stops.
  using Sink = std::function<bool(std::string_view)>;

  GzipReader();
  ~GzipReader();
  GzipReader(const GzipReader&) = delete;
  GzipReader& operator=(const GzipReader&) = delete;

  /// Hands what `bytes` decompress to piecewise to `sink`. False when they are no gzip, or
  /// the sink has stopped; nothing may be fed after that.
  [[nodiscard]] bool feed(std::string_view bytes, const Sink& sink);

  /// Whether the stream is whole: its checksum has come and was right.
  [[nodiscard]] bool isAtTheEnd() const { return isAtTheEnd_; }

 private:
  z_stream stream_{};
  bool isReady_ = false;
  bool isAtTheEnd_ = false;
};

}  // namespace zun
