#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "backends/BackendObserver.h"
#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"

namespace zun {

/// What one session posts through, and the count of what never left.
///
/// Threading: any thread. Ownership: held by the session, its backends and their posts
/// under way. When the last of them has gone, all that was lost is known and told.
class SessionPosting final : public BackendObserver {
 public:
  static constexpr uint32_t kDefaultReleaseTimeout = 30;  // seconds

  explicit SessionPosting(SystemLog& log) : log_(log) {}
  ~SessionPosting() override;

  /// For log lines.
  void setSessionID(uint32_t sessionID) { sessionID_ = sessionID; }
  /// The timeout that the helper is given when it is activated.
  void setReleaseTimeout(uint32_t seconds) EXCLUDES(mutex_);
  /// Null: nothing can be posted. Another helper than before is told the timeout.
  void setConnectivityHelper(std::shared_ptr<ReportingSessionConnectivityHelper> helper) EXCLUDES(mutex_);
  [[nodiscard]] std::shared_ptr<ReportingSessionConnectivityHelper> connectivityHelper() const
      EXCLUDES(mutex_);

  /// Activates the helper, and sets its timeout in any case.
  void activate() EXCLUDES(mutex_);
  /// The same for a helper that this session has not activated before.
  void activateOnce() EXCLUDES(mutex_);

  // BackendObserver
  void backendWasEnabled() override { activateOnce(); }
  void eventsWereLost(EventLoss cause, size_t count) override;

 private:
  void activateHelper() REQUIRES(mutex_);

  SystemLog& log_;
  std::atomic<uint32_t> sessionID_{0};
  std::array<std::atomic<size_t>, kEventLossCount> lost_{};

  mutable Mutex mutex_;
  std::shared_ptr<ReportingSessionConnectivityHelper> helper_ GUARDED_BY(mutex_);
  uint32_t releaseTimeout_ GUARDED_BY(mutex_) = kDefaultReleaseTimeout;
  std::weak_ptr<ReportingSessionConnectivityHelper> activated_ GUARDED_BY(mutex_);  // the latest
};

}  // namespace zun
