#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <map>
#include <utility>

#include "linux/files/FileDescriptor.h"

namespace zun {

/// True if whoever has `own` of `all` places may have one more: nobody gets more than half
/// of what the others leave, but everybody one while there is any.
[[nodiscard]] constexpr bool hasShare(size_t own, size_t others, size_t all) {
  return own + others < all && (own == 0 || 2 * (own + 1) + others <= all);
}

/// Clients that were accepted and have not been asked what they run. Users take turns, and a
/// user's processes within its turns, so that none waits behind the hundreds of another.
///
/// Threading: one thread. Ownership: the accepting thread's.
class WaitingClients final {
  template <typename Key, typename Map>
  static auto nextAfter(Key last, Map& map) {
    const auto next = map.upper_bound(last);
    return next == map.end() ? map.begin() : next;
  }

 public:
  /// A client costs a descriptor.
  static constexpr size_t kMaximum = 1024;
  static constexpr size_t kMaximumOfUser = kMaximum / 2;

  [[nodiscard]] bool isEmpty() const { return count_ == 0; }

  /// False, and the client is let go, beyond its user's or its process's share.
  bool add(uid_t user, pid_t process, FileDescriptor client) {
    const auto found = users_.find(user);
    const size_t ofUser = found == users_.end() ? 0 : found->second.count;
    const size_t ofProcess = found == users_.end() ? 0 : found->second.ofProcess(process);
    if (!hasShare(ofUser, count_ - ofUser, kMaximum) ||
        !hasShare(ofProcess, ofUser - ofProcess, kMaximumOfUser)) {
      return false;
    }
    User& its = users_[user];
    its.clients[process].push_back(std::move(client));
    ++its.count;
    ++count_;
    return true;
  }

  /// The longest waiting one of the process whose turn it is, of the user whose turn it is.
  /// There is one.
  FileDescriptor takeNext() {
    const auto user = nextAfter(lastUser_, users_);
    lastUser_ = user->first;
    auto& clients = user->second.clients;
    const auto process = nextAfter(user->second.lastProcess, clients);
    user->second.lastProcess = process->first;
    FileDescriptor client = std::move(process->second.front());
    process->second.pop_front();
    if (process->second.empty()) clients.erase(process);
    if (--user->second.count == 0) users_.erase(user);
    --count_;
    return client;
  }

 private:
  struct User {
    [[nodiscard]] size_t ofProcess(pid_t process) const {
      const auto found = clients.find(process);
      return found == clients.end() ? 0 : found->second.size();
    }

    std::map<pid_t, std::deque<FileDescriptor>> clients;
    size_t count = 0;
    pid_t lastProcess = 0;
  };

  std::map<uid_t, User> users_;
  size_t count_ = 0;
  uid_t lastUser_ = 0;
};

}  // namespace zun
