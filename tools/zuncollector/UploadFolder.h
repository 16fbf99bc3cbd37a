#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "values/Result.h"

namespace zun {

/// A file that is being received. It appears under its name when it is complete; one that
/// is dropped before leaves nothing. One thread.
class IncomingFile final {
 public:
  IncomingFile(IncomingFile&& other) noexcept;
  IncomingFile& operator=(IncomingFile&&) = delete;
  ~IncomingFile();

  /// False when it could not be written; the file cannot be completed then.
  [[nodiscard]] bool append(std::string_view bytes);
  /// Gives the file its name, which no other file has: "000001-<name>" or a later number.
  /// None on failure.
  [[nodiscard]] std::optional<std::string> complete(std::string_view name);

 private:
  friend class UploadFolder;
  IncomingFile(std::string folder, std::atomic<uint32_t>& lastNumber)
      : folder_(std::move(folder)), lastNumber_(lastNumber) {}

  std::string folder_;
  std::atomic<uint32_t>& lastNumber_;
  std::string path_;
  int descriptor_ = -1;
  bool isWhole_ = true;
};

/// The folder that received files are kept in, if there is one.
/// Threading: any thread. Ownership: outlives its files.
class UploadFolder final {
 public:
  explicit UploadFolder(std::string path) : path_(std::move(path)) {}

  [[nodiscard]] bool keepsFiles() const { return !path_.empty(); }
  /// Only where files are kept. An error text on failure.
  [[nodiscard]] Result<IncomingFile, std::string> begin();
  /// The content of the kept file `name`, a single safe component. None if there is none.
  [[nodiscard]] std::optional<std::string> read(const std::string& name) const;
  void remove(const std::string& name) const;

 private:
  const std::string path_;
  std::atomic<uint32_t> lastNumber_{0};
};

}  // namespace zun
