#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/MemoryBudget.h"
#include "platform/SandboxExtension.h"
#include "platform/SystemLog.h"

namespace zun {

/// Compressed bytes of one file that is uploaded.
inline constexpr size_t kMaximumUploadBytes = size_t{64} << 20;

/// What an upload takes beside them while it reads: the compressor and one piece.
inline constexpr size_t kUploadWorkingBytes = size_t{512} << 10;

/// The file's contents, as many bytes as it has now, compressed (gzip) while they are
/// read. Only the compressed bytes are kept, and they count in `memory` for as long as
/// anybody holds them. Null, after an error line, for an empty file, where reading
/// fails, and for one that takes more than `maximumBytes` or than the budget has.
///
/// Blocks on the file's medium. Any thread.
[[nodiscard]] std::shared_ptr<const std::string> compressedContents(
    const SandboxExtension& file, std::shared_ptr<MemoryBudget> memory, SystemLog& log,
    size_t maximumBytes = kMaximumUploadBytes);

}  // namespace zun
