#pragma once

#include <sys/stat.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/service/EntitlementRules.h"
#include "linux/service/NameResolver.h"
#include "linux/service/PeerIdentity.h"
#include "platform/ClientClaims.h"
#include "platform/Clock.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"
#include "values/Result.h"

namespace zun {

/// What the rules decide for one peer: by name of the entitlement.
struct PeerRight {
  bool isEntitled = false;
  ClientClaims claims;
};
using PeerRights = std::map<std::string, PeerRight, std::less<>>;

/// Who is entitled to what: rules in the property lists (*.plist) of one folder, each
/// an array of dictionaries
///
///   user        name or number          all that are given must hold,
///   group       name or number          and one of these two must be given
///   executable  path of the peer's program
///   entitlements  dictionary of name to boolean
///   clientTypes, clientNames, hierarchies  what the peer may say of itself (ClientClaims)
///
/// Files in the order of their names, rules in the order of their file: the first rule
/// for the peer that names an entitlement decides it. A file that others than root and
/// the daemon's own user could have written, or that is wrong in any way, does not count.
///
/// Where the machine fails while they are read (it is out of descriptors, say), the rules
/// stay what they were, and are read again with the next question.
///
/// Threading: any thread; no question waits for a name service. Changed files are seen by
/// the next question. Ownership: main's; `clock` and `log` outlive it.
class EntitlementStore final {
 public:
  /// `folder`: a real path; there need not be one.
  EntitlementStore(std::string folder, const Clock& clock, SystemLog& log,
                   NameLookup lookup = lookUpSystemName)
      : folder_(std::move(folder)), log_(log), names_(std::move(lookup), clock, log) {}

  /// Reads and judges the files now, and gives the names in them `patience` to be found.
  void load(std::chrono::milliseconds patience);

  [[nodiscard]] PeerRights rightsOfPeer(const PeerIdentity& peer);
  /// Whether a rule is for this user and these groups, whatever the program is.
  [[nodiscard]] bool hasRuleForAccount(const PeerIdentity& peer);

 private:
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
  using Stamps = std::vector<Stamp>;
  using Rules = std::vector<EntitlementRule>;

  void update() REQUIRES(mutex_);
  // The error is the machine's: another time there may be none.
  [[nodiscard]] Result<Stamps, std::string> stampFolder() const;
  [[nodiscard]] Result<Rules, std::string> readFiles(const Stamps& stamps) const;
  void lookUpNames() REQUIRES(mutex_);
  [[nodiscard]] bool matchesAccount(const EntitlementRule& rule, const PeerIdentity& peer);
  [[nodiscard]] bool isUser(const AccountName& user, const PeerIdentity& peer);
  [[nodiscard]] bool isInGroup(const AccountName& group, const PeerIdentity& peer);

  const std::string folder_;
  SystemLog& log_;
  NameResolver names_;
  Mutex mutex_;
  std::optional<Stamps> stamps_ GUARDED_BY(mutex_);  // none before they were read
  Rules rules_ GUARDED_BY(mutex_);
  std::string trouble_ GUARDED_BY(mutex_);  // why they could not be read the last time
};

}  // namespace zun
