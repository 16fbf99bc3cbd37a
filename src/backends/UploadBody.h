#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
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

/// Bytes of the file itself: a sparse one may have terabytes that take nothing of a disk.
inline constexpr uint64_t kMaximumUploadInputBytes = uint64_t{16} << 30;

/// For whom a file is read, and what that may take.
struct UploadTerms {
  std::shared_ptr<MemoryBudget> memory;
  BudgetHolder holder = {};
  /// Asked before each piece is read.
  std::function<bool()> isWanted = [] { return true; };
  size_t maximumBytes = kMaximumUploadBytes;
};

/// The file's contents, as many bytes as it has now, compressed (gzip) while they are
/// read. Only the compressed bytes are kept, and they count in the budget for as long as
/// anybody holds them. Null, after an error line, for an empty file, where reading
/// fails, and for one that is larger, or takes more, than it may; null as well once
/// nobody wants it any more.
///
/// Blocks on the file's medium. Any thread.
[[nodiscard]] std::shared_ptr<const std::string> compressedContents(const SandboxExtension& file,
                                                                    const UploadTerms& terms, SystemLog& log);

}  // namespace zun
