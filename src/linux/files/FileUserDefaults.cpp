#include "linux/files/FileUserDefaults.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <system_error>
#include <thread>

#include "linux/files/FileDescriptor.h"
#include "values/PropertyList.h"

namespace zun {

namespace {

constexpr size_t kMaximumSuites = 64;  // in memory at once

std::string messageOf(int code) {
  return std::generic_category().message(code);
}

/// A suite's file name: one path component, different for different suites.
std::string fileNameOfSuite(std::string_view suite) {
  std::string name;
  for (const char character : suite) {
    const bool isPlain =
        character != '/' && character != '%' && character != '\0' && !(character == '.' && name.empty());
    if (isPlain) {
      name += character;
    } else {
      name += fmt::format("%{:02X}", static_cast<unsigned char>(character));
    }
  }
  return name;
}

/// Takes the lock that writers of all processes share; an errno where that fails. A
/// holder that never lets go costs the value, not the daemon.
int lockFile(const std::string& path, std::chrono::milliseconds patience, FileDescriptor& lock) {
  lock = FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  if (!lock.isOpen()) return errno;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return errno;
    if (std::chrono::steady_clock::now() >= deadline) return ETIMEDOUT;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return 0;
}

class StagedSuite final : public StagedDefaults {
 public:
  StagedSuite(std::string path, FileDescriptor writersLock, std::unique_ptr<StagedFile> file, SystemLog& log)
      : path_(std::move(path)), writersLock_(std::move(writersLock)), file_(std::move(file)), log_(log) {}

  void publish() override {
    if (const auto error = file_->publish())
      log_.error("FileUserDefaults: could not write '{}': {}", path_, error->description);
  }

 private:
  const std::string path_;
  const FileDescriptor writersLock_;  // given back last
  const std::unique_ptr<StagedFile> file_;
  SystemLog& log_;
};

}  // namespace

PropertyListFile& FileUserDefaults::fileOfSuite(std::string_view suite) const {
  if (const auto known = suites_.find(suite); known != suites_.end()) return known->second;
  if (suites_.size() >= kMaximumSuites) suites_.clear();
  const std::string path = files_.resolve(fmt::format("{}/{}.plist", kFolder, fileNameOfSuite(suite)));
  return suites_.try_emplace(std::string(suite), files_, path).first->second;
}

const PropertyListFile::Content& FileUserDefaults::contentOf(PropertyListFile& file) const {
  bool isNewFailure = false;
  const PropertyListFile::Content& content = file.read(&isNewFailure);
  if (isNewFailure) {
    log_.error("FileUserDefaults: could not read '{}': {}", file.path(), content.failure);
  }
  return content;
}

std::optional<Value> FileUserDefaults::objectIfReadable(std::string_view suite, std::string_view key) const {
  const MutexLock lock(mutex_);
  const PropertyListFile::Content& content = contentOf(fileOfSuite(suite));
  if (content.state == PropertyListFile::State::kUnreadable) return std::nullopt;
  return content.dictionary[key];
}

size_t FileUserDefaults::countOfKeys(std::string_view suite, std::string_view prefix) const {
  const MutexLock lock(mutex_);
  const Dictionary& dictionary = contentOf(fileOfSuite(suite)).dictionary;
  return static_cast<size_t>(std::count_if(
      dictionary.begin(), dictionary.end(),
      [prefix](const DictionaryEntry& entry) { return entry.key.stringValue().starts_with(prefix); }));
}

std::unique_ptr<StagedDefaults> FileUserDefaults::stageObjects(
    std::string_view suite, std::vector<std::pair<std::string_view, Value>> objects) {
  std::string path;
  {
    const MutexLock lock(mutex_);
    path = fileOfSuite(suite).path();
  }
  // Readers go on while a writer waits for another process.
  if (const auto error = files_.createDirectories(path.substr(0, path.rfind('/')))) {
    log_.error("FileUserDefaults: could not make the folder of '{}': {}", path, error->description);
    return nullptr;
  }
  FileDescriptor writersLock;
  if (const int failure = lockFile(path + ".lock", lockPatience_, writersLock); failure != 0) {
    log_.error("FileUserDefaults: could not lock '{}': {}", path, messageOf(failure));
    return nullptr;
  }
  PropertyListFile::Content content;
  {
    const MutexLock lock(mutex_);
    content = contentOf(fileOfSuite(suite));
  }
  if (content.state == PropertyListFile::State::kUnreadable) {
    log_.error("FileUserDefaults: did not write '{}', which could not be read: {}", path, content.failure);
    return nullptr;
  }
  if (content.state == PropertyListFile::State::kBad && !moveAside(path)) return nullptr;
  bool isChange = false;
  for (auto& [key, value] : objects) {
    isChange |= !value.isNone() || content.dictionary.contains(key);
    content.dictionary.set(Value(key), std::move(value));
  }
  if (!isChange) return nullptr;
  auto file = stage(path, content.dictionary);
  if (file == nullptr) return nullptr;
  return std::make_unique<StagedSuite>(std::move(path), std::move(writersLock), std::move(file), log_);
}

bool FileUserDefaults::moveAside(const std::string& path) const {
  const std::string aside = path + ".corrupt";
  if (std::rename(path.c_str(), aside.c_str()) == 0) {
    log_.note("FileUserDefaults: kept the unreadable file as '{}'", aside);
    return true;
  }
  log_.error("FileUserDefaults: could not keep '{}' as '{}': {}", path, aside, messageOf(errno));
  return false;
}

std::unique_ptr<StagedFile> FileUserDefaults::stage(const std::string& path,
                                                    const Dictionary& content) const {
  const std::string bytes = serializeBinaryPropertyList(content);
  // A value too deep or too large would cost the whole suite at the next read.
  if (const auto check = parsePropertyList(bytes); !check) {
    log_.error("FileUserDefaults: could not write '{}': {}", path, check.error());
    return nullptr;
  }
  auto file = files_.stageFile(path, bytes, Durability::kSynced);
  if (!file) {
    log_.error("FileUserDefaults: could not write '{}': {}", path, file.error().description);
    return nullptr;
  }
  return std::move(*file);
}

}  // namespace zun
