#include "linux/files/FileSystemIdentity.h"

#include <linux/capability.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include "linux/files/PosixError.h"
#include "values/Check.h"

namespace zun {

namespace {

// What lets a thread at files whatever their owner and mode say.
constexpr uint64_t kFileCapabilities = uint64_t{1} << CAP_CHOWN | uint64_t{1} << CAP_DAC_OVERRIDE |
                                       uint64_t{1} << CAP_DAC_READ_SEARCH | uint64_t{1} << CAP_FOWNER |
                                       uint64_t{1} << CAP_FSETID | uint64_t{1} << CAP_LINUX_IMMUTABLE |
                                       uint64_t{1} << CAP_MKNOD | uint64_t{1} << CAP_MAC_OVERRIDE;

// The library's setgroups changes every thread of the process; the system's own, this one.
#ifdef SYS_setgroups32
constexpr long kSetGroups = SYS_setgroups32;
#else
constexpr long kSetGroups = SYS_setgroups;
#endif

bool setThreadGroups(const std::vector<gid_t>& groups) {
  return ::syscall(kSetGroups, groups.size(), groups.data()) == 0;
}

// Both give what was before and take no nonsense, so that asking for nonsense reads them.
uid_t threadUser() {
  return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)));
}
gid_t threadGroup() {
  return static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)));
}

bool setThreadUser(uid_t user) {
  ::setfsuid(user);
  return threadUser() == user;
}
bool setThreadGroup(gid_t group) {
  ::setfsgid(group);
  return threadGroup() == group;
}

/// A thread's sets of capabilities, as the kernel takes them.
struct Capabilities {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};

  [[nodiscard]] bool load() { return ::syscall(SYS_capget, &header, sets.data()) == 0; }
  [[nodiscard]] bool store() { return ::syscall(SYS_capset, &header, sets.data()) == 0; }
  [[nodiscard]] uint64_t effective() const { return uint64_t{sets[1].effective} << 32 | sets[0].effective; }
  void setEffective(uint64_t capabilities) {
    sets[0].effective = static_cast<uint32_t>(capabilities);
    sets[1].effective = static_cast<uint32_t>(capabilities >> 32);
  }
};

bool setThreadCapabilities(uint64_t effective) {
  Capabilities capabilities;
  if (!capabilities.load()) return false;
  if (capabilities.effective() == effective) return true;
  capabilities.setEffective(effective);
  return capabilities.store();
}

bool dropFileCapabilities() {
  Capabilities capabilities;
  return capabilities.load() && setThreadCapabilities(capabilities.effective() & ~kFileCapabilities);
}

bool hasGroup(const FileSystemIdentity& identity, gid_t group) {
  const auto& groups = identity.supplementaryGroups;
  return identity.group == group || std::find(groups.begin(), groups.end(), group) != groups.end();
}

/// True where `own` gives no right that `other` does not give.
bool isCoveredBy(const FileSystemIdentity& own, const FileSystemIdentity& other) {
  return own.user == other.user && hasGroup(other, own.group) &&
         std::all_of(own.supplementaryGroups.begin(), own.supplementaryGroups.end(),
                     [&other](gid_t group) { return hasGroup(other, group); });
}

}  // namespace

FileSystemIdentity FileSystemIdentity::ofProcess() {
  FileSystemIdentity identity{threadUser(), threadGroup(), {}};
  const int count = ::getgroups(0, nullptr);
  identity.supplementaryGroups.resize(count > 0 ? static_cast<size_t>(count) : 0);
  const int got = ::getgroups(count, identity.supplementaryGroups.data());
  identity.supplementaryGroups.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return identity;
}

Result<AssumedFileSystemIdentity, Error> AssumedFileSystemIdentity::assume(
    const FileSystemIdentity& identity) {
  using Assumed = Result<AssumedFileSystemIdentity, Error>;
  Capabilities capabilities;
  if (!capabilities.load()) return Assumed::failure(posixError(errno));
  // From here on every way out puts things right again.
  AssumedFileSystemIdentity assumed(FileSystemIdentity::ofProcess(), capabilities.effective());
  if (!isCoveredBy(assumed.own_, identity)) {
    if (!setThreadGroups(identity.supplementaryGroups)) return Assumed::failure(posixError(errno));
    // The user last: with it may go the right to all of this.
    if (!setThreadGroup(identity.group) || !setThreadUser(identity.user)) {
      return Assumed::failure(posixError(EPERM));
    }
  }
  if (identity.user != 0 && !dropFileCapabilities()) return Assumed::failure(posixError(EPERM));
  return assumed;
}

AssumedFileSystemIdentity::~AssumedFileSystemIdentity() {
  if (!isInForce_) return;
  ZUN_CHECK(setThreadUser(own_.user));
  ZUN_CHECK(setThreadCapabilities(ownCapabilities_));
  ZUN_CHECK(setThreadGroup(own_.group));
  // Refused to those who could not have changed their groups either.
  ZUN_CHECK(setThreadGroups(own_.supplementaryGroups) ||
            FileSystemIdentity::ofProcess().supplementaryGroups == own_.supplementaryGroups);
}

}  // namespace zun
