#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <utility>

#include "linux/service/KnownPeer.h"

namespace zun {

/// Who has just been turned away. A process that connects in a loop is refused again at
/// next to no cost, so that the queue in which everybody waits is emptied faster than one
/// process fills it. Only refusals are remembered, and for a moment: whoever is entitled by
/// then is asked about afresh.
///
/// Threading: the accepting thread's.
class RecentRefusals final {
 public:
  using Time = std::chrono::nanoseconds;
  static constexpr Time kKept = std::chrono::milliseconds(100);
  static constexpr size_t kMaximumProcesses = 256;

  void add(const KnownPeer& peer, Time now) {
    if (peer.identity().process == 0) return;  // of another namespace, and any
    if (refused_.size() >= kMaximumProcesses) refused_.clear();
    refused_.insert_or_assign(peer.identity().process, Refused{peer, now + kKept});
  }

  /// The same process of the same user, when it was refused; null if it was not just now.
  [[nodiscard]] const KnownPeer* find(const PeerIdentity& peer, Time now) {
    const auto found = refused_.find(peer.process);
    if (found == refused_.end()) return nullptr;
    const PeerIdentity& before = found->second.peer.identity();
    if (now < found->second.until && before.user == peer.user && before.group == peer.group) {
      return &found->second.peer;
    }
    refused_.erase(found);
    return nullptr;
  }

 private:
  struct Refused {
    KnownPeer peer;
    Time until;
  };
  std::map<pid_t, Refused> refused_;
};

}  // namespace zun
