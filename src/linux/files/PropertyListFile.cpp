#include "linux/files/PropertyListFile.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "values/PropertyList.h"

namespace zun {

namespace {

int64_t nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// Errors that tell something of the file itself; any other is the machine's.
bool isOfTheFile(int code) {
  return code == EFBIG || code == EISDIR || code == EINVAL || code == ELOOP || code == EACCES ||
         code == EPERM;
}

}  // namespace

PropertyListFile::Identity PropertyListFile::identityOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {.statError = errno};
  return {status.st_dev,
          status.st_ino,
          status.st_size,
          nanoseconds(status.st_mtim),
          nanoseconds(status.st_ctim),
          0};
}

/// File times move in steps of some milliseconds, and inodes are used again: a file
/// that changed just now may change once more and still look the same.
bool PropertyListFile::isSettled(const Identity& identity) {
  constexpr int64_t kStep = 100'000'000;
  const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  return std::abs(now - identity.changed) > kStep;
}

const PropertyListFile::Content& PropertyListFile::read(bool* isNewFailure) {
  const Identity identity = identityOf(path_);
  const bool isSameFile = identity == identity_;
  if (isNewFailure != nullptr) *isNewFailure = false;
  if (isSameFile && isTrusted_) return content_;

  const bool isMissing = identity.statError == ENOENT;
  const bool mayStay = isMissing || (identity.statError == 0 && isSettled(identity));
  Content content = load();
  const bool isFailure = content.state == State::kBad || content.state == State::kUnreadable;
  const bool isKnown = isSameFile && content.state == content_.state && content.failure == content_.failure;
  if (isNewFailure != nullptr) *isNewFailure = isFailure && !isKnown;
  identity_ = identity;
  // What cannot be read at the moment may be readable at the next, file unchanged.
  isTrusted_ =
      mayStay && content.state != State::kUnreadable && isMissing == (content.state == State::kMissing);
  content_ = std::move(content);
  return content_;
}

PropertyListFile::Content PropertyListFile::load() const {
  const PropertyListLimits limits;
  const auto bytes = files_.readFile(path_, limits.maximumBytes);
  if (!bytes) {
    const int code = bytes.error().code;
    if (code == ENOENT || code == ENOTDIR) return {};
    return {isOfTheFile(code) ? State::kBad : State::kUnreadable, {}, bytes.error().description};
  }
  auto value = parsePropertyList(*bytes, limits);
  if (!value) return {State::kBad, {}, value.error()};
  const Dictionary* const dictionary = value->dictionary();
  if (dictionary == nullptr) return {State::kBad, {}, "the outermost value is no dictionary"};
  return {State::kGood, *dictionary, {}};
}

}  // namespace zun
