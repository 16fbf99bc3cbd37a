#pragma once

#include <cstdint>
#include <optional>

namespace zun {

/// What the daemon is busy with, at a moment.
struct DaemonActivity {
  bool isTransactionOpen = false;
  uint64_t jobsTaken = 0;       // by the worker threads, since the start
  uint64_t jobsUnfinished = 0;  // of theirs
  uint64_t transfersInFlight = 0;
  uint64_t dashboards = 0;  // of ended sessions, whose packets wait for their acknowledgement
};

/// Decides when a daemon that is to stop has nothing more to wait for: no dashboard waits,
/// and its transaction has ended, or no transfer is in flight and none is about to be.
///
/// A post passes through queues on its way to the transfer thread and back, so one
/// quiet look proves nothing: two in a row do, with no job between them.
/// Pure; one thread.
class QuietPeriod final {
 public:
  /// True once there is nothing to wait for.
  bool observe(const DaemonActivity& now) {
    const bool areWorkersIdle = now.jobsUnfinished == 0;
    const bool isQuiet = areWorkersIdle && now.transfersInFlight == 0;
    const bool wasQuiet = quietSince_ == now.jobsTaken;
    quietSince_ = isQuiet ? std::optional(now.jobsTaken) : std::nullopt;
    // A dashboard is counted by a job; the end of the transaction may come before that.
    return now.dashboards == 0 && areWorkersIdle && (!now.isTransactionOpen || (isQuiet && wasQuiet));
  }

 private:
  std::optional<uint64_t> quietSince_;  // jobs taken at the last look, if it was a quiet one
};

}  // namespace zun
