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
/// under way. The count is told at the session's end; what is lost later, when the last of
/// them has gone.
class SessionPosting final : public BackendObserver {
 public:
  static constexpr uint32_t kDefaultReleaseTimeout = 30;  // seconds

  explicit SessionPosting(SystemLog& log) : log_(log) {}
  ~SessionPosting() override;

  /// For log lines.
  void setSessionID(uint32_t sessionID) { sessionID_ = sessionID; }
  /// The timeout that the helper is given when it is activated.
  void setReleaseTimeout(uint32_t seconds) EXCLUDES(mutex_);
  /// Null: nothing can be posted. A helper is told the timeout.
  void setConnectivityHelper(std::shared_ptr<ReportingSessionConnectivityHelper> helper) EXCLUDES(mutex_);
  [[nodiscard]] std::shared_ptr<ReportingSessionConnectivityHelper> connectivityHelper() const
      EXCLUDES(mutex_);

  /// Between them its backends' states may change, before or after `endStart` hears of it:
  /// the helper is activated once, at the end, whether or not it has been before.
  void beginStart() EXCLUDES(mutex_);
  void endStart(bool isAnyEnabled) EXCLUDES(mutex_);
  /// Activates a helper that this session has not activated before.
  void activateOnce() EXCLUDES(mutex_);

  /// Tells how many events were lost since the last time. At the session's end.
  void tellLosses();

  // BackendObserver
  void backendWasEnabled() override { activateOnce(); }
  void eventsWereLost(EventLoss cause, size_t count) override;

 private:
  void activate() REQUIRES(mutex_);

  SystemLog& log_;
  std::atomic<uint32_t> sessionID_{0};
  std::array<std::atomic<size_t>, kEventLossCount> lost_{};
  std::array<size_t, kEventLossCount> told_{};

  mutable Mutex mutex_;
  std::shared_ptr<ReportingSessionConnectivityHelper> helper_ GUARDED_BY(mutex_);
  uint32_t releaseTimeout_ GUARDED_BY(mutex_) = kDefaultReleaseTimeout;
  std::weak_ptr<ReportingSessionConnectivityHelper> activated_ GUARDED_BY(mutex_);  // the latest
  bool isStarting_ GUARDED_BY(mutex_) = false;
  bool isDueAtTheEnd_ GUARDED_BY(mutex_) = false;  // of the start
};

}  // namespace zun
