#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "linux/files/FileDescriptor.h"
#include "values/Error.h"
#include "values/Result.h"

namespace zun {

/// A Unix stream socket that listens, non-blocking. The socket file that it made goes
/// away with it; one that the service manager handed over stays.
class ListeningSocket final {
 public:
  /// The service manager's socket where it hands one over, else one on `address`
  /// ("unix:path=PATH"): a stale socket file is replaced, one that answers is not.
  static Result<ListeningSocket, Error> open(std::string_view address);

  ListeningSocket(ListeningSocket&& other) noexcept = default;
  ~ListeningSocket() { close(); }

  [[nodiscard]] int get() const { return descriptor_.get(); }
  void close();

 private:
  explicit ListeningSocket(FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
  static Result<ListeningSocket, Error> bindTo(const std::string& path);

  FileDescriptor descriptor_;
  std::string path_;  // of the file to remove
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

/// The path of a D-Bus address; none for any other kind of address.
[[nodiscard]] Result<std::string, Error> pathOfDBusAddress(std::string_view address);

}  // namespace zun
