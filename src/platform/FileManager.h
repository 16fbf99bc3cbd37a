#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "values/Date.h"
#include "values/Error.h"
#include "values/Result.h"

namespace zun {

struct FileAttributes {
  uint64_t size = 0;
  Date modificationDate;
  std::optional<Date> creationDate;  // birth time; the modification date where there is none
  bool isDirectory = false;
  bool isRegularFile = false;
  bool isOwn = false;  // belongs to the user that this process acts as

  /// One line for logs.
  [[nodiscard]] std::string description() const;
};

enum class Links : bool { kNotFollowed, kFollowed };

enum class Durability : bool { kBestEffort, kSynced };

/// A file that stands complete beside its place. Letting go of it drops it, or does what is
/// left of the waiting for the disk where it was published. One thread at a time.
class StagedFile {
 public:
  virtual ~StagedFile() = default;

  /// Puts it in its place, without waiting for the disk. Once; none on success.
  virtual std::optional<Error> publish() = 0;
};

/// A regular file that lines are appended to. What the system writes later may fail without a
/// word. One thread at a time.
class AppendedFile {
 public:
  virtual ~AppendedFile() = default;

  /// Lines, all or none; after a line without an end they begin a line of their own.
  virtual std::optional<Error> append(std::string_view lines) = 0;
  /// None once it is removed.
  [[nodiscard]] virtual std::optional<uint64_t> size() const = 0;
};

/// Files by path. Errors are in kPOSIXErrorDomain with the errno as code.
///
/// `~` and absolute paths of the daemon's own are turned into real ones by `resolve`
/// first; every other operation takes the path as it is. Any thread.
class FileManager {
 public:
  virtual ~FileManager() = default;

  /// `~` becomes the home folder; the daemon's root folder goes in front.
  [[nodiscard]] virtual std::string resolve(std::string_view path) const = 0;

  /// The whole regular file; an error for one larger than `maximumBytes` (EFBIG).
  [[nodiscard]] virtual Result<std::string, Error> readFile(const std::string& path,
                                                            uint64_t maximumBytes) const = 0;
  /// Complete or never seen: through a temporary file beside it. None on success.
  virtual std::optional<Error> writeFileAtomically(const std::string& path, std::string_view bytes,
                                                   Durability durability = Durability::kBestEffort) = 0;
  /// `writeFileAtomically` in two steps: this one waits for the disk.
  [[nodiscard]] virtual Result<std::unique_ptr<StagedFile>, Error> stageFile(
      const std::string& path, std::string_view bytes, Durability durability = Durability::kBestEffort) = 0;
  /// Makes a new file, whole or not at all; what is there already is an error (EEXIST),
  /// be it a link that leads to nothing.
  virtual std::optional<Error> createFile(const std::string& path, std::string_view bytes) = 0;
  /// Makes a file that is missing. A link is an error (ELOOP).
  [[nodiscard]] virtual Result<std::unique_ptr<AppendedFile>, Error> openForAppending(
      const std::string& path) = 0;
  /// Creates the folder and those above it; an existing one is no error.
  virtual std::optional<Error> createDirectories(const std::string& path) = 0;
  /// Removes a file, a link or a whole folder (links inside are not followed).
  virtual std::optional<Error> removeItem(const std::string& path) = 0;

  /// Lets the owner read and write the item, and enter it if it is a folder.
  virtual std::optional<Error> allowOwnerAccess(const std::string& path) = 0;

  /// To the microsecond, where the file system keeps them.
  virtual std::optional<Error> setModificationDate(const std::string& path, Date date) = 0;

  /// Names in a folder, sorted.
  [[nodiscard]] virtual Result<std::vector<std::string>, Error> listDirectory(
      const std::string& path) const = 0;
  /// Paths, relative to `path`, of everything below it; links are not followed.
  [[nodiscard]] virtual std::vector<std::string> enumerateRecursively(const std::string& path) const = 0;
  /// None where there is nothing. Links above the item itself are always followed.
  [[nodiscard]] virtual std::optional<FileAttributes> attributes(const std::string& path,
                                                                 Links links = Links::kFollowed) const = 0;
};

/// "file:///a/b" for "/a/b", percent-encoded where a URL wants it.
[[nodiscard]] std::string fileURLOfPath(std::string_view path);
/// The path of a file URL; none for anything else.
[[nodiscard]] std::optional<std::string> pathOfFileURL(std::string_view url);

}  // namespace zun
