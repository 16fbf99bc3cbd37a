#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "linux/http/CurlURLSessionTask.h"
#include "platform/MemoryBudget.h"

namespace zun {

/// How many tasks there may be, with how many bytes to send: each server has a share, and
/// each holder, so that neither a slow server nor a busy client takes it all. Uploads are
/// counted apart. The daemon's own requests stand in nobody's share. Any thread.
class TransferShares final {
 public:
  TransferShares(size_t tasks, int64_t bodyBytes)
      : posts_(tasks, static_cast<size_t>(bodyBytes)), uploads_(tasks, static_cast<size_t>(bodyBytes)) {}

  /// Why the task has no place; none: it has.
  [[nodiscard]] std::optional<std::string> take(const CurlURLSessionTask& task) {
    Shares& shares = of(task);
    if (task.lane() != TransferLane::kOwn && !shares.ofServers.take(task, serverOf(task)))
      return "too many transfers to this server are under way";
    if (shares.ofHolders.take(task, task.request().holder)) return std::nullopt;
    if (task.lane() != TransferLane::kOwn) shares.ofServers.giveBack(task, serverOf(task));
    return "too many transfers of this client are under way";
  }
  void giveBack(const CurlURLSessionTask& task) {
    Shares& shares = of(task);
    if (task.lane() != TransferLane::kOwn) shares.ofServers.giveBack(task, serverOf(task));
    shares.ofHolders.giveBack(task, task.request().holder);
  }

 private:
  struct Budgets {
    Budgets(size_t most, size_t mostBytes) : tasks(most), bodyBytes(mostBytes) {}
    bool take(const CurlURLSessionTask& task, BudgetHolder holder) {
      if (!tasks.take(1, holder)) return false;
      if (bodyBytes.take(static_cast<size_t>(task.bodyBytes()), holder)) return true;
      tasks.giveBack(1, holder);
      return false;
    }
    void giveBack(const CurlURLSessionTask& task, BudgetHolder holder) {
      tasks.giveBack(1, holder);
      bodyBytes.giveBack(static_cast<size_t>(task.bodyBytes()), holder);
    }
    MemoryBudget tasks;
    MemoryBudget bodyBytes;
  };
  struct Shares {
    Shares(size_t most, size_t mostBytes) : ofServers(most, mostBytes), ofHolders(most, mostBytes) {}
    Budgets ofServers;
    Budgets ofHolders;
  };

  Shares& of(const CurlURLSessionTask& task) {
    return task.lane() == TransferLane::kUploads ? uploads_ : posts_;
  }
  /// A server holds its share as a user does.
  static BudgetHolder serverOf(const CurlURLSessionTask& task) {
    return {static_cast<uint32_t>(std::hash<std::string>{}(task.target().host)) | 1U, 0};
  }

  Shares posts_;
  Shares uploads_;
};

}  // namespace zun
