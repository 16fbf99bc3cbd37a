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

/// Clients that were accepted and have not been asked who they are. Their processes take
/// turns, so that none waits behind the hundreds of another.
///
/// Threading: one thread. Ownership: the accepting thread's.
class WaitingClients final {
 public:
  /// A client costs a descriptor.
  static constexpr size_t kMaximum = 1024;

  [[nodiscard]] bool isEmpty() const { return count_ == 0; }

  /// False, and the client is let go, beyond its process's share.
  bool add(pid_t process, FileDescriptor client) {
    auto& ofProcess = clients_[process];
    if (!hasShare(ofProcess.size(), count_ - ofProcess.size(), kMaximum)) {
      if (ofProcess.empty()) clients_.erase(process);
      return false;
    }
    ofProcess.push_back(std::move(client));
    ++count_;
    return true;
  }

  /// The longest waiting one of the process whose turn it is. There is one.
  FileDescriptor takeNext() {
    auto turn = clients_.upper_bound(lastProcess_);
    if (turn == clients_.end()) turn = clients_.begin();
    lastProcess_ = turn->first;
    FileDescriptor client = std::move(turn->second.front());
    turn->second.pop_front();
    if (turn->second.empty()) clients_.erase(turn);
    --count_;
    return client;
  }

 private:
  std::map<pid_t, std::deque<FileDescriptor>> clients_;
  size_t count_ = 0;
  pid_t lastProcess_ = 0;
};

}  // namespace zun
