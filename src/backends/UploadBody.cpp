#include "backends/UploadBody.h"

#include <algorithm>
#include <new>
#include <span>
#include <utility>

#include "util/Compression.h"

namespace zun {

namespace {

constexpr size_t kPieceBytes = size_t{128} << 10;
static_assert(kPieceBytes + StreamingCompressor::kMemoryBytes <= kUploadWorkingBytes);

/// Bytes and what they take of the budget, let go together.
struct CountedBytes {
  explicit CountedBytes(std::shared_ptr<MemoryBudget> memory) : share(std::move(memory)) {}

  MemoryShare share;
  std::string bytes;
};

/// Reads one file to its end, or to where that was at the beginning: one that somebody
/// goes on writing to has an end, too.
class FileCompressor final {
 public:
  FileCompressor(const SandboxExtension& file, std::shared_ptr<MemoryBudget> memory, SystemLog& log,
                 size_t maximumBytes)
      : file_(file),
        log_(log),
        maximumBytes_(maximumBytes),
        working_(memory),
        body_(std::make_shared<CountedBytes>(std::move(memory))) {}

  std::shared_ptr<const std::string> run() {
    if (!working_.grow(kUploadWorkingBytes)) return failWithoutMemory();
    compressor_ = StreamingCompressor::create(CompressionWrapper::kGzip, log_);
    if (compressor_ == nullptr || !addFile()) return nullptr;
    if (!compressor_->finish(sink())) return nullptr;
    std::string& bytes = body_->bytes;
    if (bytes.capacity() / 2 > bytes.size()) bytes.shrink_to_fit();
    return {body_, &bytes};
  }

 private:
  bool addFile() {
    const uint64_t size = file_.size();
    reserve(size);
    std::string piece(kPieceBytes, '\0');
    uint64_t offset = 0;
    while (offset < size) {
      const auto wanted = static_cast<size_t>(std::min<uint64_t>(kPieceBytes, size - offset));
      const auto count = file_.read(offset, std::span(piece.data(), wanted));
      if (!count) {
        log_.error("UploadBackend(uploadFileAtPath): Cannot read the file: {}", count.error().description);
        return false;
      }
      if (*count == 0) break;  // it has become shorter
      if (!compressor_->add({piece.data(), *count}, sink())) return false;
      offset += *count;
    }
    if (offset == 0) log_.error("UploadBackend(uploadFileAtPath): Input file is empty");
    return offset > 0;
  }

  /// Room for what cannot be compressed, so that nothing is ever copied for more of it.
  /// The system provides it only as it is written to.
  void reserve(uint64_t size) {
    constexpr uint64_t kRoomForFrames = 4096;
    body_->bytes.reserve(static_cast<size_t>(std::min<uint64_t>(
        maximumBytes_, std::min<uint64_t>(size, maximumBytes_) * 1001 / 1000 + kRoomForFrames)));
  }

  StreamingCompressor::Sink sink() {
    return [this](std::string_view bytes) {
      if (bytes.size() > maximumBytes_ - body_->bytes.size()) {
        log_.error("UploadBackend(uploadFileAtPath): The file takes more than {} bytes when compressed",
                   maximumBytes_);
        return false;
      }
      if (!body_->share.grow(bytes.size())) {
        failWithoutMemory();
        return false;
      }
      body_->bytes += bytes;
      return true;
    };
  }

  std::nullptr_t failWithoutMemory() {
    log_.error("UploadBackend(uploadFileAtPath): Uploads under way leave no memory for this file");
    return nullptr;
  }

  const SandboxExtension& file_;
  SystemLog& log_;
  const size_t maximumBytes_;
  MemoryShare working_;
  std::unique_ptr<StreamingCompressor> compressor_;
  const std::shared_ptr<CountedBytes> body_;
};

}  // namespace

std::shared_ptr<const std::string> compressedContents(const SandboxExtension& file,
                                                      std::shared_ptr<MemoryBudget> memory, SystemLog& log,
                                                      size_t maximumBytes) try {
  return FileCompressor(file, std::move(memory), log, maximumBytes).run();
} catch (const std::bad_alloc&) {
  log.error("UploadBackend(uploadFileAtPath): Out of memory");
  return nullptr;
}

}  // namespace zun
