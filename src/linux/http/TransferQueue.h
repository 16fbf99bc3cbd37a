#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "linux/http/CurlURLSession.h"
#include "linux/http/CurlURLSessionTask.h"

namespace zun {

/// Who goes next of those whom nothing but the others keeps waiting.
///
/// Servers take turns, one task each, so that a busy one does not shut out the others, and so do
/// holders at each server. Each lane has connections of its own to a server. A few of all connections are
/// kept for the daemon's own requests, and uploads have half of them at most. What can choose its time goes
/// one at a time, when nobody else wants to.
///
/// Threading: the transfer thread only. Ownership: of the loop.
class TransferQueue final {
 public:
  using Task = std::shared_ptr<CurlURLSessionTask>;

  /// `options` outlive the queue.
  explicit TransferQueue(const CurlOptions& options) : options_(options) {}

  void push(Task task);
  /// Whether `next` is likely to give one.
  [[nodiscard]] bool hasNext() const;
  /// Takes out the task whose turn it is: it has a connection until `ended`. None: null.
  [[nodiscard]] Task next();
  void ended(const CurlURLSessionTask& task);

  [[nodiscard]] bool isEmpty() const { return queued_ == 0; }
  /// Takes out those for which `isOver` says so.
  template <typename Condition>
  std::vector<Task> takeOut(Condition isOver);

 private:
  using Holder = std::pair<uint32_t, uint64_t>;  // user and member
  struct Server {
    TransferLane lane = TransferLane::kPosts;
    size_t active = 0;
    bool hasTurn = false;                        // stands in its lane's turns
    std::map<Holder, std::deque<Task>> waiting;  // none of them empty
    Holder last;                                 // who had its turn
  };
  struct Lane {
    size_t active = 0;
    std::deque<Server*> turns;  // with someone in the queue and a connection free
  };

  [[nodiscard]] Lane& of(TransferLane lane) { return lanes_[static_cast<size_t>(lane)]; }
  [[nodiscard]] bool mayStart(TransferLane lane) const;
  [[nodiscard]] bool mayStartDiscretionary() const;
  [[nodiscard]] Task nextOf(TransferLane lane);
  Server& serverOf(const CurlURLSessionTask& task);
  void giveTurn(Server& server);
  [[nodiscard]] static Task nextOf(Server& server);

  const CurlOptions& options_;
  std::unordered_map<std::string, Server> servers_;
  std::array<Lane, kTransferLanes> lanes_;
  std::deque<Task> discretionary_;
  size_t discretionaryActive_ = 0;
  size_t active_ = 0;
  size_t queued_ = 0;
};

template <typename Condition>
std::vector<TransferQueue::Task> TransferQueue::takeOut(Condition isOver) {
  std::vector<Task> taken;
  const auto takeIfOver = [&taken, &isOver](const Task& task) {
    if (!isOver(*task)) return false;
    taken.push_back(task);
    return true;
  };
  std::erase_if(discretionary_, takeIfOver);
  for (auto& [name, server] : servers_) {
    for (auto& [holder, tasks] : server.waiting) std::erase_if(tasks, takeIfOver);
    std::erase_if(server.waiting, [](const auto& entry) { return entry.second.empty(); });
  }
  queued_ -= taken.size();
  return taken;
}

}  // namespace zun
