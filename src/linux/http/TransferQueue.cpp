#include "linux/http/TransferQueue.h"

#include <algorithm>
#include <utility>

namespace zun {
namespace {

// Of all connections, one of so many is for the daemon's own requests alone.
constexpr size_t kKeptPart = 16;

std::string nameOf(const CurlURLSessionTask& task) {
  return std::to_string(static_cast<int>(task.lane())) + " " + task.target().host;
}

}  // namespace

TransferQueue::Server& TransferQueue::serverOf(const CurlURLSessionTask& task) {
  Server& server = servers_[nameOf(task)];
  server.lane = task.lane();
  return server;
}

void TransferQueue::push(Task task) {
  ++queued_;
  if (task->configuration().discretionary) {
    discretionary_.push_back(std::move(task));
    return;
  }
  Server& server = serverOf(*task);
  const BudgetHolder& holder = task->request().holder;
  server.waiting[{holder.user, holder.member}].push_back(std::move(task));
  giveTurn(server);
}

void TransferQueue::giveTurn(Server& server) {
  if (server.hasTurn || server.waiting.empty() || server.active >= options_.maxConnectionsPerHost) return;
  server.hasTurn = true;
  of(server.lane).turns.push_back(&server);
}

bool TransferQueue::mayStart(TransferLane lane) const {
  const size_t most = options_.maxConnections;
  if (lane == TransferLane::kOwn) return active_ < most;
  const bool isUpload = lane == TransferLane::kUploads;
  if (isUpload && lanes_[static_cast<size_t>(lane)].active >= most / 2) return false;
  return active_ < most - most / kKeptPart;
}

bool TransferQueue::mayStartDiscretionary() const {
  const bool wantsNobody =
      std::all_of(lanes_.begin(), lanes_.end(), [](const Lane& lane) { return lane.turns.empty(); });
  return wantsNobody && discretionaryActive_ == 0 && !discretionary_.empty() &&
         mayStart(discretionary_.front()->lane());
}

bool TransferQueue::hasNext() const {
  for (size_t i = 0; i < kTransferLanes; ++i) {
    if (!lanes_[i].turns.empty() && mayStart(static_cast<TransferLane>(i))) return true;
  }
  return mayStartDiscretionary();
}

TransferQueue::Task TransferQueue::next() {
  Task task;
  for (size_t i = 0; i < kTransferLanes && !task; ++i) task = nextOf(static_cast<TransferLane>(i));
  if (!task && mayStartDiscretionary()) {
    task = std::move(discretionary_.front());
    discretionary_.pop_front();
    ++discretionaryActive_;
  }
  if (!task) return nullptr;
  --queued_;
  ++active_;
  ++of(task->lane()).active;
  Server& server = serverOf(*task);
  ++server.active;
  giveTurn(server);
  return task;
}

TransferQueue::Task TransferQueue::nextOf(TransferLane lane) {
  std::deque<Server*>& turns = of(lane).turns;
  while (!turns.empty() && mayStart(lane)) {
    Server& server = *turns.front();
    turns.pop_front();
    server.hasTurn = false;
    if (server.waiting.empty()) {  // those who stood in it were taken out
      if (server.active == 0)
        std::erase_if(servers_, [&server](const auto& entry) { return &entry.second == &server; });
      continue;
    }
    return nextOf(server);
  }
  return nullptr;
}

TransferQueue::Task TransferQueue::nextOf(Server& server) {
  auto holder = server.waiting.upper_bound(server.last);
  if (holder == server.waiting.end()) holder = server.waiting.begin();
  server.last = holder->first;
  std::deque<Task>& tasks = holder->second;
  Task task = std::move(tasks.front());
  tasks.pop_front();
  if (tasks.empty()) server.waiting.erase(holder);
  return task;
}

void TransferQueue::ended(const CurlURLSessionTask& task) {
  --active_;
  --of(task.lane()).active;
  if (task.configuration().discretionary) --discretionaryActive_;
  const auto found = servers_.find(nameOf(task));
  Server& server = found->second;
  --server.active;
  giveTurn(server);
  if (server.active == 0 && !server.hasTurn && server.waiting.empty()) servers_.erase(found);
}

}  // namespace zun
