#pragma once

#include <httplib.h>

#include <cstdint>
#include <string>

#include "RecordFile.h"
#include "UploadFolder.h"
#include "platform/Mutex.h"
#include "values/Result.h"

namespace zun {

struct LogDataTotals {
  uint64_t archives = 0;
  uint64_t refused = 0;
  uint64_t records = 0;  // elements of the archived arrays
  uint64_t bytes = 0;
};

/// Takes log data: POST of a keyed archive of an array, as "application/octet-stream". Its
/// content is recorded, the archive is kept where uploads are, and the answer is the
/// location of it: a URL as plain text.
///
/// Threading: any thread. Ownership: `file` and `folder` outlive the endpoint.
class LogDataEndpoint final {
 public:
  LogDataEndpoint(RecordFile& file, UploadFolder& folder) : file_(file), folder_(folder) {}

  /// `base` is the URL that locations begin with.
  void take(const httplib::Request& request, httplib::Response& response, const std::string& body,
            const std::string& base);
  /// Gives out the archive that the path's first group names.
  void serve(const httplib::Request& request, httplib::Response& response) const;

  [[nodiscard]] LogDataTotals totals() const EXCLUDES(mutex_);
  void refuse(httplib::Response& response, int status, const std::string& why) EXCLUDES(mutex_);

 private:
  Result<std::string, std::string> keep(const std::string& body) EXCLUDES(mutex_);

  RecordFile& file_;
  UploadFolder& folder_;
  mutable Mutex mutex_;
  LogDataTotals totals_ GUARDED_BY(mutex_);
  uint64_t notKept_ GUARDED_BY(mutex_) = 0;
};

}  // namespace zun
