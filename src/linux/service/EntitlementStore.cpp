#include "linux/service/EntitlementStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <system_error>

#include "linux/files/FileDescriptor.h"
#include "linux/files/FileTrust.h"
#include "values/PropertyList.h"
#include "values/Result.h"

namespace zun {

namespace {

constexpr std::string_view kSuffix = ".plist";
constexpr size_t kMaximumFileBytes = size_t{1} << 20;
constexpr size_t kNameBufferBytes = size_t{16} << 10;

bool sameTime(const timespec& left, const timespec& right) {
  return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

std::string systemMessage(int error) {
  return std::generic_category().message(error);
}

/// A whole regular file that nobody but root and the daemon's user can write.
Result<std::string, std::string> readTrustedFile(const std::string& path) {
  using Read = Result<std::string, std::string>;
  // Not blocking: a pipe in its place must not hold up everybody.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0) return Read::failure(systemMessage(errno));
  if (!S_ISREG(status.st_mode)) return Read::failure("it is no regular file");
  if (const char* const reason = reasonToDistrust(status)) return Read::failure(reason);
  if (static_cast<size_t>(status.st_size) > kMaximumFileBytes) return Read::failure("it is too large");
  std::string bytes(kMaximumFileBytes + 1, '\0');
  size_t length = 0;
  while (length < bytes.size()) {
    const ssize_t count = ::read(file.get(), bytes.data() + length, bytes.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Read::failure(systemMessage(errno));
    if (count == 0) break;
    length += static_cast<size_t>(count);
  }
  if (length > kMaximumFileBytes) return Read::failure("it is too large");
  bytes.resize(length);
  return bytes;
}

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// The id that a rule gives as an integer or as digits.
std::optional<uint32_t> numberOf(const Value& value) {
  const bool isNumeric = value.isInteger() || (value.isString() && isNumber(value.stringValue()));
  const int64_t number = value.intValue();
  if (!isNumeric || number < 0 || number >= std::numeric_limits<uint32_t>::max()) return std::nullopt;
  return static_cast<uint32_t>(number);
}

std::optional<uid_t> userOf(const Value& value) {
  if (const auto number = numberOf(value)) return number;
  std::string buffer(kNameBufferBytes, '\0');
  passwd entry{};
  passwd* found = nullptr;
  const std::string name(value.stringValue());
  if (name.empty() || ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0)
    return {};
  return found == nullptr ? std::nullopt : std::optional(found->pw_uid);
}

std::optional<gid_t> groupOf(const Value& value) {
  if (const auto number = numberOf(value)) return number;
  std::string buffer(kNameBufferBytes * 4, '\0');
  group entry{};
  group* found = nullptr;
  const std::string name(value.stringValue());
  if (name.empty() || ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0)
    return {};
  return found == nullptr ? std::nullopt : std::optional(found->gr_gid);
}

bool isInGroup(const PeerIdentity& peer, gid_t group) {
  const auto& others = peer.supplementaryGroups;
  return peer.group == group || std::find(others.begin(), others.end(), group) != others.end();
}

}  // namespace

bool EntitlementStore::Stamp::operator==(const Stamp& other) const {
  return name == other.name && device == other.device && inode == other.inode && mode == other.mode &&
         owner == other.owner && size == other.size && sameTime(modified, other.modified) &&
         sameTime(changed, other.changed);
}

Dictionary EntitlementStore::entitlementsOfPeer(const PeerIdentity& peer) {
  auto stamps = stampFolder();
  Dictionary entitlements;
  const MutexLock lock(mutex_);
  if (stamps != stamps_) {
    reload(stamps);
    stamps_ = std::move(stamps);
  }
  for (const Rule& rule : rules_) {
    if (!matches(rule, peer)) continue;
    for (const auto& [name, value] : rule.entitlements) {
      if (!entitlements.contains(name.stringValue())) entitlements.set(name, Value(value.boolValue()));
    }
  }
  return entitlements;
}

std::vector<EntitlementStore::Stamp> EntitlementStore::stampFolder() const {
  std::vector<Stamp> stamps;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(folder_.c_str()), ::closedir);
  if (folder == nullptr) return stamps;
  while (const dirent* const entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (!name.ends_with(kSuffix) || name.starts_with('.')) continue;
    Stamp stamp;
    stamp.name = name;
    struct stat status {};
    if (::fstatat(::dirfd(folder.get()), entry->d_name, &status, 0) == 0) {
      stamp.device = status.st_dev;
      stamp.inode = status.st_ino;
      stamp.mode = status.st_mode;
      stamp.owner = status.st_uid;
      stamp.size = status.st_size;
      stamp.modified = status.st_mtim;
      stamp.changed = status.st_ctim;
    }
    stamps.push_back(std::move(stamp));
  }
  std::sort(stamps.begin(), stamps.end(),
            [](const Stamp& left, const Stamp& right) { return left.name < right.name; });
  return stamps;
}

void EntitlementStore::reload(const std::vector<Stamp>& stamps) {
  rules_.clear();
  for (const Stamp& stamp : stamps) readFile(folder_ + "/" + stamp.name);
}

void EntitlementStore::readFile(const std::string& path) {
  const auto bytes = readTrustedFile(path);
  if (!bytes) {
    log_.error("entitlements: {} is ignored: {}", path, bytes.error());
    return;
  }
  const auto content = parsePropertyList(*bytes);
  if (!content) {
    log_.error("entitlements: {} is ignored: {}", path, content.error());
    return;
  }
  const Array* const rules = (*content).array();
  if (rules == nullptr) {
    log_.error("entitlements: {} is ignored: it is no array of rules", path);
    return;
  }
  bool isWellFormed = true;
  for (const Value& element : *rules) {
    Rule rule;
    rule.isWellFormed = element.isDictionary();
    if (const Dictionary* const dictionary = element.dictionary()) rule = parseRule(*dictionary);
    isWellFormed = isWellFormed && rule.isWellFormed;
    if (rule.isWellFormed) rules_.push_back(std::move(rule));
  }
  if (!isWellFormed) log_.error("entitlements: {} has rules of the wrong form, which are ignored", path);
}

/// A condition of the wrong kind must not turn into no condition at all.
EntitlementStore::Rule EntitlementStore::parseRule(const Dictionary& dictionary) {
  Rule rule;
  const Value& executable = dictionary["executable"];
  const Value& user = dictionary["user"];
  const Value& group = dictionary["group"];
  const auto isNameOrNumber = [](const Value& value) {
    return value.isNone() || value.isInteger() || value.isString();
  };
  const Dictionary* const entitlements = dictionary["entitlements"].dictionary();
  rule.isWellFormed = (executable.isNone() || executable.isString()) && isNameOrNumber(user) &&
                      isNameOrNumber(group) && entitlements != nullptr;
  if (!rule.isWellFormed) return rule;
  if (executable.isString()) rule.executable = executable.stringValue();
  rule.namesUser = !user.isNone();
  if (rule.namesUser) rule.user = userOf(user);
  rule.namesGroup = !group.isNone();
  if (rule.namesGroup) rule.group = groupOf(group);
  rule.entitlements = *entitlements;
  return rule;
}

bool EntitlementStore::matches(const Rule& rule, const PeerIdentity& peer) {
  const bool isExecutable =
      !rule.executable || (!peer.executable.empty() && *rule.executable == peer.executable);
  const bool isUser = !rule.namesUser || (rule.user && *rule.user == peer.user);
  const bool isGroup = !rule.namesGroup || (rule.group && isInGroup(peer, *rule.group));
  return isExecutable && isUser && isGroup;
}

}  // namespace zun
