#pragma once

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

}  // namespace zun
