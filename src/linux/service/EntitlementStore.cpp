#include "linux/service/EntitlementStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <system_error>

#include "linux/files/FileDescriptor.h"
#include "linux/files/FileTrust.h"

namespace zun {

namespace {

constexpr std::string_view kSuffix = ".plist";
constexpr size_t kMaximumFileBytes = size_t{1} << 20;

bool sameTime(const timespec& left, const timespec& right) {
  return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

std::string systemMessage(int error) {
  return std::generic_category().message(error);
}

/// The error says something about the file; any other one is the machine's.
bool isOfTheFile(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP || error == EACCES || error == EPERM ||
         error == ENXIO;
}

/// Why a file cannot be used.
struct ReadFault {
  enum class Of { kFile, kMachine } of = Of::kFile;
  std::string reason;

  static ReadFault ofSystem(int error) {
    return {isOfTheFile(error) ? Of::kFile : Of::kMachine, systemMessage(error)};
  }
};

/// A whole regular file that nobody but root and the daemon's user can write.
Result<std::string, ReadFault> readTrustedFile(const std::string& path) {
  using Read = Result<std::string, ReadFault>;
  const auto refuse = [](const char* reason) { return Read::failure({ReadFault::Of::kFile, reason}); };
  // Not blocking: a pipe in its place must not hold up everybody.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0) return Read::failure(ReadFault::ofSystem(errno));
  if (!S_ISREG(status.st_mode)) return refuse("it is no regular file");
  if (const char* const reason = reasonToDistrust(status)) return refuse(reason);
  if (static_cast<size_t>(status.st_size) > kMaximumFileBytes) return refuse("it is too large");
  std::string bytes(kMaximumFileBytes + 1, '\0');
  size_t length = 0;
  while (length < bytes.size()) {
    const ssize_t count = ::read(file.get(), bytes.data() + length, bytes.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Read::failure(ReadFault::ofSystem(errno));
    if (count == 0) break;
    length += static_cast<size_t>(count);
  }
  if (length > kMaximumFileBytes) return refuse("it is too large");
  bytes.resize(length);
  return bytes;
}

/// The program that the rule names, and not another one at the same path for its peer.
bool isProgram(const std::string& executable, const PeerIdentity& peer) {
  struct stat status {};
  return peer.program && ::stat(executable.c_str(), &status) == 0 && status.st_dev == peer.program->device &&
         status.st_ino == peer.program->inode;
}

}  // namespace

bool EntitlementStore::Stamp::operator==(const Stamp& other) const {
  return name == other.name && device == other.device && inode == other.inode && mode == other.mode &&
         owner == other.owner && size == other.size && sameTime(modified, other.modified) &&
         sameTime(changed, other.changed);
}

void EntitlementStore::load(std::chrono::milliseconds patience) {
  {
    const MutexLock lock(mutex_);
    update();
  }
  names_.wait(patience);
}

PeerRights EntitlementStore::rightsOfPeer(const PeerIdentity& peer) {
  PeerRights rights;
  const MutexLock lock(mutex_);
  update();
  for (const EntitlementRule& rule : rules_) {
    if (!matchesAccount(rule, peer) || (rule.executable && !isProgram(*rule.executable, peer))) continue;
    for (const auto& [name, isEntitled] : rule.entitlements) {
      rights.try_emplace(name, PeerRight{isEntitled, rule.claims});
    }
  }
  return rights;
}

bool EntitlementStore::hasRuleForAccount(const PeerIdentity& peer) {
  const MutexLock lock(mutex_);
  update();
  return std::any_of(rules_.begin(), rules_.end(),
                     [&](const EntitlementRule& rule) { return matchesAccount(rule, peer); });
}

void EntitlementStore::update() {
  auto stamps = stampFolder();
  if (stamps && stamps_ == *stamps) {
    trouble_.clear();
    return;
  }
  auto rules = stamps ? readFiles(*stamps) : Result<Rules, std::string>::failure(stamps.error());
  if (!rules) {
    if (trouble_ != rules.error()) {
      log_.error("entitlements: the rules stay as they are: {}", rules.error());
      trouble_ = rules.error();
    }
    return;
  }
  rules_ = std::move(*rules);
  stamps_ = std::move(*stamps);
  trouble_.clear();
  lookUpNames();
}

void EntitlementStore::lookUpNames() {
  const auto lookUp = [this](NameKind kind, const std::optional<AccountName>& account) {
    if (!account) return;
    if (const auto* const name = std::get_if<std::string>(&*account)) names_.lookUpAgain(kind, *name);
  };
  for (const EntitlementRule& rule : rules_) {
    lookUp(NameKind::kUser, rule.user);
    lookUp(NameKind::kGroup, rule.group);
  }
}

Result<EntitlementStore::Stamps, std::string> EntitlementStore::stampFolder() const {
  using Stamped = Result<Stamps, std::string>;
  const auto fail = [this](int error) {
    return Stamped::failure(fmt::format("{}: {}", folder_, systemMessage(error)));
  };
  Stamps stamps;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(folder_.c_str()), ::closedir);
  if (folder == nullptr) return errno == ENOENT || errno == ENOTDIR ? Stamped(stamps) : fail(errno);
  errno = 0;
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
    errno = 0;
  }
  if (errno != 0) return fail(errno);
  std::sort(stamps.begin(), stamps.end(),
            [](const Stamp& left, const Stamp& right) { return left.name < right.name; });
  return stamps;
}

Result<EntitlementStore::Rules, std::string> EntitlementStore::readFiles(const Stamps& stamps) const {
  Rules rules;
  std::vector<std::string> faults;
  for (const Stamp& stamp : stamps) {
    const std::string path = folder_ + "/" + stamp.name;
    const auto bytes = readTrustedFile(path);
    if (!bytes && bytes.error().of == ReadFault::Of::kMachine) {
      return Result<Rules, std::string>::failure(fmt::format("{}: {}", path, bytes.error().reason));
    }
    auto ofFile =
        bytes ? parseEntitlementRules(*bytes) : Result<Rules, std::string>::failure(bytes.error().reason);
    if (!ofFile) {
      faults.push_back(fmt::format("{} is ignored: {}", path, ofFile.error()));
      continue;
    }
    std::move(ofFile->begin(), ofFile->end(), std::back_inserter(rules));
  }
  for (const std::string& fault : faults) log_.error("entitlements: {}", fault);
  return rules;
}

bool EntitlementStore::matchesAccount(const EntitlementRule& rule, const PeerIdentity& peer) {
  return (!rule.user || isUser(*rule.user, peer)) && (!rule.group || isInGroup(*rule.group, peer));
}

bool EntitlementStore::isUser(const AccountName& user, const PeerIdentity& peer) {
  const auto* const name = std::get_if<std::string>(&user);
  const auto number = name == nullptr ? std::get<uint32_t>(user) : names_.numberOf(NameKind::kUser, *name);
  return number == peer.user;
}

bool EntitlementStore::isInGroup(const AccountName& group, const PeerIdentity& peer) {
  const auto* const name = std::get_if<std::string>(&group);
  const auto number = name == nullptr ? std::get<uint32_t>(group) : names_.numberOf(NameKind::kGroup, *name);
  const auto& others = peer.supplementaryGroups;
  return number &&
         (peer.group == *number || std::find(others.begin(), others.end(), *number) != others.end());
}

}  // namespace zun
