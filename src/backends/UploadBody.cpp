#include "backends/UploadBody.h"

#include <algorithm>
#include <new>
#include <span>
#include <utility>

#include "util/Compression.h"
#include "util/ReportingServices.h"

namespace zun {

namespace {

// One that comes alone may upload the largest.
static_assert(4 * (kMaximumUploadBytes + kUploadWorkingBytes) <= ReportingServices::kUploadMemoryBytes);

constexpr size_t kPieceBytes = size_t{128} << 10;
static_assert(kPieceBytes + StreamingCompressor::kMemoryBytes <= kUploadWorkingBytes);

/// Bytes and what they take of the budget, let go together.
struct CountedBytes {
  explicit CountedBytes(const UploadTerms& terms) : share(terms.memory, terms.holder) {}

  MemoryShare share;
  std::string bytes;
};

/// Reads one file to its end, or to where that was at the beginning: one that somebody
/// goes on writing to has an end, too.
class FileCompressor final {
 public:
  FileCompressor(const SandboxExtension& file, const UploadTerms& terms, SystemLog& log)
      : file_(file),
        terms_(terms),
        log_(log),
        working_(terms.memory, terms.holder),
        body_(std::make_shared<CountedBytes>(terms)) {}

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
    if (size > kMaximumUploadInputBytes) {
      log_.error("UploadBackend(uploadFileAtPath): The file has more than {} bytes",
                 kMaximumUploadInputBytes);
      return false;
    }
    reserve(size);
    std::string piece(kPieceBytes, '\0');
    uint64_t offset = 0;
    while (offset < size) {
      if (!terms_.isWanted()) {
        log_.note("UploadBackend(uploadFileAtPath): Nobody waits for the file any more");
        return false;
      }
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
        terms_.maximumBytes, std::min<uint64_t>(size, terms_.maximumBytes) * 1001 / 1000 + kRoomForFrames)));
  }

  StreamingCompressor::Sink sink() {
    return [this](std::string_view bytes) {
      if (bytes.size() > terms_.maximumBytes - body_->bytes.size()) {
        log_.error("UploadBackend(uploadFileAtPath): The file takes more than {} bytes when compressed",
                   terms_.maximumBytes);
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
  const UploadTerms& terms_;
  SystemLog& log_;
  MemoryShare working_;
  std::unique_ptr<StreamingCompressor> compressor_;
  const std::shared_ptr<CountedBytes> body_;
};

}  // namespace

std::shared_ptr<const std::string> compressedContents(const SandboxExtension& file, const UploadTerms& terms,
                                                      SystemLog& log) try {
  return FileCompressor(file, terms, log).run();
} catch (const std::bad_alloc&) {
  log.error("UploadBackend(uploadFileAtPath): Out of memory");
  return nullptr;
}

}  // namespace zun
