#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>

#include "linux/http/CurlURLSessionTask.h"
#include "platform/MemoryBudget.h"
#include "platform/Mutex.h"

namespace zun {

/// How many tasks there may be, with how many bytes to send: each holder has a share of all,
/// and one of the half that a server may have, so that neither a slow server nor a busy client
/// takes it all. Uploads are counted apart. The daemon's own requests stand in nobody's share
/// of a server. Any thread.
class TransferShares final {
 public:
  TransferShares(size_t tasks, int64_t bodyBytes)
      : posts_(tasks, static_cast<size_t>(bodyBytes)), uploads_(tasks, static_cast<size_t>(bodyBytes)) {}

  /// Why the task has no place; none: it has.
  [[nodiscard]] std::optional<std::string> take(const CurlURLSessionTask& task) {
    Shares& shares = of(task);
    const BudgetHolder holder = task.request().holder;
    if (!shares.takeOfServer(task)) return "too many transfers to this server are under way";
    if (shares.tasks.take(1, holder)) {
      if (shares.bodyBytes.take(static_cast<size_t>(task.bodyBytes()), holder)) return std::nullopt;
      shares.tasks.giveBack(1, holder);
    }
    shares.giveBackToServer(task);
    return "too many transfers of this client are under way";
  }
  void giveBack(const CurlURLSessionTask& task) {
    Shares& shares = of(task);
    shares.giveBackToServer(task);
    shares.tasks.giveBack(1, task.request().holder);
    shares.bodyBytes.giveBack(static_cast<size_t>(task.bodyBytes()), task.request().holder);
  }

 private:
  struct Shares {
    Shares(size_t most, size_t mostBytes) : tasks(most), bodyBytes(mostBytes), ofOneServer(most / 2) {}
    bool takeOfServer(const CurlURLSessionTask& task) {
      if (task.lane() == TransferLane::kOwn) return true;
      const MutexLock lock(mutex);
      return servers.try_emplace(task.target().host, ofOneServer)
          .first->second.take(1, task.request().holder);
    }
    void giveBackToServer(const CurlURLSessionTask& task) {
      if (task.lane() == TransferLane::kOwn) return;
      const MutexLock lock(mutex);
      const auto server = servers.find(task.target().host);
      server->second.giveBack(1, task.request().holder);
      if (server->second.left() == ofOneServer) servers.erase(server);
    }

    MemoryBudget tasks;
    MemoryBudget bodyBytes;
    const size_t ofOneServer;
    Mutex mutex;
    std::unordered_map<std::string, MemoryBudget> servers GUARDED_BY(mutex);  // with tasks
  };

  Shares& of(const CurlURLSessionTask& task) {
    return task.lane() == TransferLane::kUploads ? uploads_ : posts_;
  }

  Shares posts_;
  Shares uploads_;
};

}  // namespace zun
