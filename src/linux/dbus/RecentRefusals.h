#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <utility>

#include "linux/service/KnownPeer.h"

namespace zun {

/// Who has just been turned away: a process, or an account that no rule is for. Whoever
/// connects in a loop is refused again at next to no cost, so that the queue in which
/// everybody waits is emptied faster than one process fills it. Only refusals are remembered, and for a
/// moment: whoever is entitled by then is asked about afresh.
///
/// Threading: the accepting thread's.
class RecentRefusals final {
 public:
  using Time = std::chrono::nanoseconds;
  static constexpr Time kKept = std::chrono::milliseconds(100);
  static constexpr size_t kMaximum = 256;

  void add(const KnownPeer& peer, Time now) {
    if (peer.identity().process == 0) return;  // of another namespace, and any
    add(peer.identity().process, peer, now);
  }
  /// Whatever process of its user and groups comes next.
  void addAccount(const KnownPeer& peer, Time now) { add(kAnyProcess, peer, now); }

  /// The same process of the same user, when it was refused, or one of the same account if
  /// that was; null if neither was just now.
  [[nodiscard]] const KnownPeer* find(const PeerIdentity& peer, Time now) {
    const KnownPeer* const ofAccount = find(kAnyProcess, peer, now);
    return ofAccount != nullptr ? ofAccount : find(peer.process, peer, now);
  }

 private:
  static constexpr pid_t kAnyProcess = 0;

  void add(pid_t process, const KnownPeer& peer, Time now) {
    if (refused_.size() >= kMaximum) refused_.clear();
    refused_.insert_or_assign({process, peer.identity().user}, Refused{peer, now + kKept});
  }
  const KnownPeer* find(pid_t process, const PeerIdentity& peer, Time now) {
    const auto found = refused_.find({process, peer.user});
    if (found == refused_.end()) return nullptr;
    const PeerIdentity& before = found->second.peer.identity();
    if (now < found->second.until && before.group == peer.group &&
        before.supplementaryGroups == peer.supplementaryGroups) {
      return &found->second.peer;
    }
    refused_.erase(found);
    return nullptr;
  }

  struct Refused {
    KnownPeer peer;
    Time until;
  };
  std::map<std::pair<pid_t, uid_t>, Refused> refused_;
};

}  // namespace zun
