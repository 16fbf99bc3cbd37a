#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/SystemLog.h"

namespace zun {

enum class CompressionWrapper { kZlib, kGzip };

/// `bytes` deflated in the wrapper given; none on failure, after an error line (an
/// empty input is one).
[[nodiscard]] std::optional<std::string> compressDataWithZlibOrGzip(CompressionWrapper wrapper,
                                                                    std::string_view bytes, SystemLog& log);

/// The same, as gzip.
[[nodiscard]] std::optional<std::string> gzipDeflate(std::string_view bytes, SystemLog& log);

class DeflateStream;

/// Compresses what comes in pieces. One thread at a time.
class StreamingCompressor final {
 public:
  /// Takes the next compressed bytes; false to have no more.
  using Sink = std::function<bool(std::string_view bytes)>;

  /// All that one takes, whatever it compresses.
  static constexpr size_t kMemoryBytes = size_t{384} << 10;

  /// Null after an error line.
  static std::unique_ptr<StreamingCompressor> create(CompressionWrapper wrapper, SystemLog& log);
  ~StreamingCompressor();

  /// False once the sink wants no more, or on failure, which has its error line. It is
  /// of no use then.
  [[nodiscard]] bool add(std::string_view bytes, const Sink& sink);
  /// After the last piece; as above.
  [[nodiscard]] bool finish(const Sink& sink);

 private:
  StreamingCompressor(std::unique_ptr<DeflateStream> stream, SystemLog& log);
  bool push(std::string_view bytes, int flush, const Sink& sink);

  const std::unique_ptr<DeflateStream> stream_;
  SystemLog& log_;
  std::string output_;
};

}  // namespace zun
