#pragma once

#include <optional>
#include <string>

namespace zun {

/// One answer to a storebag request.
struct StorebagAnswer {
  enum class Kind { kFile, kNotModified, kNotFound };

  Kind kind = Kind::kNotFound;
  std::string bytes;
  std::string lastModified;  // HTTP date
};

/// Signed storebags of a folder, one file a name. Any thread.
class StorebagStore final {
 public:
  explicit StorebagStore(std::string folder) : folder_(std::move(folder)) {}

  /// The file of `name`, unless it has not changed since `ifModifiedSince` (an HTTP
  /// date; anything else counts as absent).
  [[nodiscard]] StorebagAnswer answer(const std::string& name,
                                      const std::optional<std::string>& ifModifiedSince) const;

 private:
  const std::string folder_;
};

/// "Tue, 14 Nov 2023 22:13:20 GMT" (RFC 9110, 5.6.7).
[[nodiscard]] std::string httpDate(int64_t secondsSince1970);
[[nodiscard]] std::optional<int64_t> secondsOfHTTPDate(const std::string& date);

}  // namespace zun
