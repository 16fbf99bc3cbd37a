#pragma once

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "RecordFile.h"
#include "UploadFolder.h"
#include "UploadQuery.h"
#include "platform/Mutex.h"
#include "values/Result.h"

namespace zun {

/// What an upload that was taken is answered. Each but the first is a fault to try out.
enum class UploadAnswer {
  kSuccess,      // JSON with "success"
  kFailure,      // JSON without that word
  kEmpty,        // 200 without a body
  kHang,         // nothing until the end of the server
  kServerError,  // 500
  kBroken,       // the connection ends within the body
};

/// "success", "failure", "empty", "hang", "http-500" or "broken".
[[nodiscard]] std::string_view nameOf(UploadAnswer answer);

struct UploadTotals {
  uint64_t uploads = 0;
  uint64_t refused = 0;
  uint64_t wireBytes = 0;  // bodies as they came
  uint64_t bytes = 0;      // bodies after decompression
};

/// Takes uploaded files: POST with the query of UploadQuery and a body that is gzip or, as
/// its headers say, plain. The body is written away as it comes; whatever the answer, a
/// file that came whole is kept and recorded.
///
/// Threading: any thread. Ownership: `file` and `folder` outlive the endpoint.
class UploadEndpoint final {
 public:
  /// `limit`: bytes of a body, as it comes and decompressed.
  UploadEndpoint(RecordFile& file, UploadFolder& folder, UploadAnswer answer, uint64_t limit)
      : file_(file), folder_(folder), answer_(answer), limit_(limit) {}

  void take(const httplib::Request& request, httplib::Response& response,
            const httplib::ContentReader& content);
  /// Answers that hang end, now and from now on.
  void stopHanging();

  [[nodiscard]] UploadTotals totals() const EXCLUDES(mutex_);

 private:
  struct Body {
    std::optional<IncomingFile> file;
    uint64_t wireBytes = 0;
    uint64_t bytes = 0;
    std::string error;  // why it is refused
  };
  Body receive(const std::string& encoding, const httplib::ContentReader& content);
  bool store(Body& body, std::string_view bytes) const;
  /// Keeps and records it. An error text on failure.
  std::string keep(const httplib::Request& request, const UploadQuery& query, Body& body);
  void answer(httplib::Response& response);
  void refuse(httplib::Response& response, int status, const std::string& why) EXCLUDES(mutex_);

  RecordFile& file_;
  UploadFolder& folder_;
  const UploadAnswer answer_;
  const uint64_t limit_;
  std::atomic<bool> isStopping_{false};
  mutable Mutex mutex_;
  UploadTotals totals_ GUARDED_BY(mutex_);
};

}  // namespace zun
