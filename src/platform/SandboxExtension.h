#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "values/Error.h"
#include "values/Result.h"

namespace zun {

/// Access to one file that a client handed over. Its bytes come through the client's own
/// descriptor, so nothing is read that the client could not read itself.
///
/// One thread at a time; ends, and lets go of the file, with the object. Errors are in
/// kPOSIXErrorDomain with the errno as code.
class SandboxExtension {
 public:
  virtual ~SandboxExtension() = default;

  /// False as well for what only looks like a file and would show more to the daemon than
  /// to its client, as the kernel's own file systems do. Nothing else can be read.
  [[nodiscard]] virtual bool isRegularFile() const = 0;

  /// Bytes that the file has at this moment; others may write to it.
  [[nodiscard]] virtual uint64_t size() const = 0;

  /// Up to `buffer.size()` bytes from `offset` on; 0 at the end of the file. May block
  /// on the file's medium.
  [[nodiscard]] virtual Result<size_t, Error> read(uint64_t offset, std::span<char> buffer) const = 0;

  /// Removes the path, only while it still names this very file and the client itself
  /// may remove it. None on success.
  virtual std::optional<Error> removeFile() = 0;
};

/// The extensions that one connection has issued and not consumed yet. Any thread. Tokens
/// mean nothing to another connection's.
class SandboxExtensions {
 public:
  virtual ~SandboxExtensions() = default;

  /// Access to the file at `path`, if the token was issued here, for that very file, and
  /// `path` is absolute and no symbolic link. A token serves once, a wrong path leaves it.
  /// A NUL at its end does not count.
  virtual Result<std::unique_ptr<SandboxExtension>, Error> consume(std::string_view token,
                                                                   const std::string& path) = 0;
};

/// A token as a client gave it, and the connection that must have issued it.
struct SandboxExtensionToken {
  std::string bytes;
  std::shared_ptr<SandboxExtensions> extensions;
  /// Whether anybody still waits for what is done with the file. Called while that goes on.
  std::function<bool()> isWanted = [] { return true; };

  [[nodiscard]] Result<std::unique_ptr<SandboxExtension>, Error> consume(const std::string& path) const {
    return extensions->consume(bytes, path);
  }
};

}  // namespace zun
