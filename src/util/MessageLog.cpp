#include "util/MessageLog.h"

#include <cerrno>
#include <cmath>
#include <exception>

namespace zun {

namespace {

constexpr std::string_view kNameStart = "zunreportingd_";
constexpr std::string_view kNameEnd = "_messageLog.diag";
constexpr double kSecondsPerDay = 86400;

// "zunreportingd", anything without a "_", "messageLog.diag", joined by "_".
bool isLogFileName(std::string_view name) {
  if (name.size() < kNameStart.size() + kNameEnd.size()) return false;
  if (!name.starts_with(kNameStart) || !name.ends_with(kNameEnd)) return false;
  name.remove_prefix(kNameStart.size());
  name.remove_suffix(kNameEnd.size());
  return name.find('_') == std::string_view::npos;
}

std::string describe(const std::optional<Date>& date) {
  return date ? dateDescription(*date) : "(null)";
}

}  // namespace

MessageLog::MessageLog(const PlatformServices& platform) : platform_(platform) {}

void MessageLog::writeToLogFile(std::string_view message) {
  const MutexLock lock(mutex_);
  try {
    append(message);
  } catch (const std::exception& failure) {
    platform_.log.error("writeToLogFile: Failed to write log message: {}", failure.what());
  }
}

void MessageLog::append(std::string_view message) {
  const std::string directory = platform_.files.resolve(kDirectory);
  const std::string entry = fmt::format("({}) {}\n", dateDescription(platform_.clock.now()), message);
  std::optional<Error> failure;
  const auto path = fileFor(directory, entry.size(), failure);
  if (path) {
    failure = appendToFile(*path, entry);
    if (!failure) platform_.log.debug("writeToLogFile: Saved log message to {}", *path);
  }
  if (failure && failure->code != lastFailure_) {
    platform_.log.error("writeToLogFile: Cannot write to {}: {}", path.value_or(directory),
                        failure->description);
  }
  lastFailure_ = failure ? failure->code : 0;
}

std::optional<Error> MessageLog::appendToFile(const std::string& path, const std::string& entry) {
  if (file_ == nullptr) {
    auto file = platform_.files.openForAppending(path);
    if (!file) return file.error();
    file_ = std::move(*file);
  }
  auto failure = file_->append(entry);
  if (failure) file_.reset();
  return failure;
}

/// A file that has room for `bytes` more.
std::optional<std::string> MessageLog::fileFor(const std::string& directory, uint64_t bytes,
                                               std::optional<Error>& failure) {
  const auto path = lookedUpFile(directory, failure);
  if (!path) return createFile(directory, failure);
  if (found_->size + bytes <= kMaximumBytes) return path;
  platform_.log.error("writeToLogFile: {} has reached {} bytes and is begun anew", *path, kMaximumBytes);
  found_.reset();
  file_.reset();
  failure = platform_.files.removeItem(*path);
  return failure ? std::nullopt : createFile(directory, failure);
}

std::optional<std::string> MessageLog::lookedUpFile(const std::string& directory,
                                                    std::optional<Error>& failure) {
  const double now = platform_.clock.now().secondsSince1970;
  const auto folder = platform_.files.attributes(directory);
  const double folderChanged = folder ? folder->modificationDate.secondsSince1970 : 0;
  const auto size = file_ == nullptr ? std::nullopt : file_->size();
  if (found_ && size && found_->folderChanged == folderChanged && std::abs(now - found_->when) < 1) {
    found_->size = *size;
    return found_->path;
  }
  found_.reset();
  file_.reset();
  auto path = currentFile(directory, failure);
  if (path) {
    const auto attributes = platform_.files.attributes(*path, Links::kNotFollowed);
    found_ = Found{*path, folderChanged, now, attributes ? attributes->size : 0};
  }
  return path;
}

std::optional<std::string> MessageLog::currentFile(const std::string& directory,
                                                   std::optional<Error>& failure) {
  const auto names = platform_.files.listDirectory(directory);
  if (!names) {
    if (names.error().domain == kPOSIXErrorDomain && names.error().code == ENOENT) {
      platform_.log.note("writeToLogFile: Creating zunreportingd log directory at {}", directory);
      failure = platform_.files.createDirectories(directory);
    } else {
      failure = names.error();
      platform_.log.error("writeToLogFile: Error reading from log directory: {}", names.error().description);
    }
    return std::nullopt;
  }
  const Date now = platform_.clock.now();
  std::optional<LogFile> current;
  for (const std::string& name : *names) {
    if (!isLogFileName(name)) continue;
    LogFile file{directory + "/" + name, std::nullopt};
    if (const auto attributes = platform_.files.attributes(file.path, Links::kNotFollowed)) {
      if (!attributes->isRegularFile) continue;
      file.created = attributes->creationDate;
    }
    if (file.created && now.secondsSince1970 - file.created->secondsSince1970 > kSecondsPerDay) {
      deleteFile(file);
    } else if (!current) {
      current = std::move(file);
    } else if (file.created > current->created) {
      deleteFile(*current);
      current = std::move(file);
    } else {
      deleteFile(file);
    }
  }
  return current ? std::optional(std::move(current->path)) : std::nullopt;
}

std::optional<std::string> MessageLog::createFile(const std::string& directory,
                                                  std::optional<Error>& failure) {
  const auto seconds = static_cast<int32_t>(platform_.clock.timeOfDay().seconds);
  std::string path = fmt::format("{}/{}_{}_{}", directory, "zunreportingd", seconds, "messageLog.diag");
  const auto error = platform_.files.createFile(path, "");
  const auto attributes = platform_.files.attributes(path, Links::kNotFollowed);
  if (!attributes || !attributes->isRegularFile) {
    if (!failure) failure = error;
    platform_.log.error("writeToLogFile: Failed to create new zunreportingd log file {}", path);
    return std::nullopt;
  }
  platform_.log.note("writeToLogFile: Created new zunreportingd log file {} ({})", path,
                     attributes->description());
  return path;
}

void MessageLog::deleteFile(const LogFile& file) {
  platform_.files.removeItem(file.path);
  platform_.log.note("writeToLogFile: Deleted expired zunreportingd log file {} ({})", file.path,
                     describe(file.created));
}

}  // namespace zun
