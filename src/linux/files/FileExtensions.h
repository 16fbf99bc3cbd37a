#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "linux/files/FileDescriptor.h"
#include "linux/files/FileSystemIdentity.h"
#include "platform/Mutex.h"
#include "platform/SandboxExtension.h"

namespace zun {

/// Extensions for files whose open descriptors a client passed: the descriptor proves that
/// the client may read the file, and everything is read through it.
///
///   issue ─▶ token ──consume with the file's own path──▶ extension (the token is used up)
///                  └─any other path──▶ refused, the token stays
///   invalidate ─▶ all that is unused is closed, nothing is given any more
///
/// A path is never opened: it is looked up, with the client's rights where the process can
/// take them on, and compared with the descriptor.
///
/// Threading: any thread. Looking up a path may block, closing a file as well.
/// Ownership: the connection's, and of whoever uses its tokens; extensions live on their own.
class FileExtensions final : public SandboxExtensions {
 public:
  static constexpr size_t kMaximumUnused = 32;

  enum class Refusal { kNotReadable, kTooMany, kEnded };

  /// `client`: in whose name paths are looked up and files removed.
  explicit FileExtensions(FileSystemIdentity client) : client_(std::move(client)) {}

  /// A token for `file`: random text that cannot be guessed. Whatever is no descriptor open
  /// for reading is refused; what else it is, its consumer finds out.
  Result<std::string, Refusal> issue(FileDescriptor file);

  Result<std::unique_ptr<SandboxExtension>, Error> consume(std::string_view token,
                                                           const std::string& path) override;

  void invalidate();

 private:
  const FileSystemIdentity client_;
  Mutex mutex_;
  bool hasEnded_ GUARDED_BY(mutex_) = false;
  std::map<std::string, std::shared_ptr<FileDescriptor>, std::less<>> unused_ GUARDED_BY(mutex_);
};

}  // namespace zun
