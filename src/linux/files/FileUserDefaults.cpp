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

}  // namespace

PropertyListFile& FileUserDefaults::fileOfSuite(std::string_view suite) const {
  if (const auto known = suites_.find(suite); known != suites_.end()) return known->second;
  if (suites_.size() >= kMaximumSuites) suites_.clear();
  const std::string path = files_.resolve("~/Library/Preferences/" + fileNameOfSuite(suite) + ".plist");
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

Value FileUserDefaults::objectForKey(std::string_view suite, std::string_view key) const {
  const MutexLock lock(mutex_);
  return contentOf(fileOfSuite(suite)).dictionary[key];
}

size_t FileUserDefaults::countOfKeys(std::string_view suite, std::string_view prefix) const {
  const MutexLock lock(mutex_);
  const Dictionary& dictionary = contentOf(fileOfSuite(suite)).dictionary;
  return static_cast<size_t>(std::count_if(
      dictionary.begin(), dictionary.end(),
      [prefix](const DictionaryEntry& entry) { return entry.key.stringValue().starts_with(prefix); }));
}

void FileUserDefaults::setObject(std::string_view suite, std::string_view key, Value value) {
  std::string path;
  {
    const MutexLock lock(mutex_);
    path = fileOfSuite(suite).path();
  }
  // Readers go on while a writer waits for another process.
  save(path, suite, key, std::move(value));
}

void FileUserDefaults::save(const std::string& path, std::string_view suite, std::string_view key,
                            Value value) const {
  if (const auto error = files_.createDirectories(path.substr(0, path.rfind('/')))) {
    log_.error("FileUserDefaults: could not make the folder of '{}': {}", path, error->description);
    return;
  }
  FileDescriptor writersLock;
  if (const int failure = lockFile(path + ".lock", lockPatience_, writersLock); failure != 0) {
    log_.error("FileUserDefaults: could not lock '{}': {}", path, messageOf(failure));
    return;
  }
  PropertyListFile::Content content;
  {
    const MutexLock lock(mutex_);
    content = contentOf(fileOfSuite(suite));
  }
  if (content.state == PropertyListFile::State::kUnreadable) {
    log_.error("FileUserDefaults: did not write '{}', which could not be read: {}", path, content.failure);
    return;
  }
  if (content.state == PropertyListFile::State::kBad && !moveAside(path)) return;
  if (value.isNone() && !content.dictionary.contains(key)) return;
  content.dictionary.set(Value(key), std::move(value));
  static_cast<void>(write(path, content.dictionary));
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

bool FileUserDefaults::write(const std::string& path, const Dictionary& content) const {
  const std::string bytes = serializeBinaryPropertyList(content);
  // A value too deep or too large would cost the whole suite at the next read.
  if (const auto check = parsePropertyList(bytes); !check) {
    log_.error("FileUserDefaults: could not write '{}': {}", path, check.error());
    return false;
  }
  if (const auto error = files_.writeFileAtomically(path, bytes, Durability::kSynced)) {
    log_.error("FileUserDefaults: could not write '{}': {}", path, error->description);
    return false;
  }
  return true;
}

}  // namespace zun
