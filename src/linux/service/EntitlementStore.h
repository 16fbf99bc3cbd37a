#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/service/PeerIdentity.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"
#include "values/Value.h"

namespace zun {

/// Who is entitled to what: rules in the property lists (*.plist) of one folder, each
/// an array of dictionaries
///
///   executable  path of the peer's program
///   user        name or number          all that are given must hold;
///   group       name or number          a rule with none of them is for everybody
///   entitlements  dictionary of name to boolean
///
/// Files in the order of their names, rules in the order of their file: the first rule
/// for the peer that names an entitlement decides it. Files that others than root and
/// the daemon's own user could have written are not read.
///
/// Threading: any thread. Changed files are seen by the next question. Ownership:
/// main's; `log` outlives it.
class EntitlementStore final {
 public:
  /// `folder`: a real path; there need not be one.
  EntitlementStore(std::string folder, SystemLog& log) : folder_(std::move(folder)), log_(log) {}

  /// Name to boolean of every entitlement that a rule decides for `peer`.
  [[nodiscard]] Dictionary entitlementsOfPeer(const PeerIdentity& peer);

 private:
  struct Rule {
    std::optional<std::string> executable;
    // Of named users and groups the number; none where nobody has the name.
    bool namesUser = false;
    std::optional<uid_t> user;
    bool namesGroup = false;
    std::optional<gid_t> group;
    bool isWellFormed = true;
    Dictionary entitlements;
  };
  /// What tells a file from its changed self.
  struct Stamp {
    std::string name;
    dev_t device = 0;
    ino_t inode = 0;
    mode_t mode = 0;
    uid_t owner = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    bool operator==(const Stamp& other) const;
  };

  [[nodiscard]] std::vector<Stamp> stampFolder() const;
  void reload(const std::vector<Stamp>& stamps) REQUIRES(mutex_);
  void readFile(const std::string& path) REQUIRES(mutex_);
  [[nodiscard]] static Rule parseRule(const Dictionary& rule);
  [[nodiscard]] static bool matches(const Rule& rule, const PeerIdentity& peer);

  const std::string folder_;
  SystemLog& log_;
  Mutex mutex_;
  std::vector<Stamp> stamps_ GUARDED_BY(mutex_);
  std::vector<Rule> rules_ GUARDED_BY(mutex_);
};

}  // namespace zun
