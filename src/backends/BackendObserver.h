#pragma once

#include <cstddef>

namespace zun {

/// Why events that were to be posted were not, without an answer from anybody.
enum class EventLoss { kNoPostURL, kNoConnectivityHelper, kHelperRefused };
inline constexpr size_t kEventLossCount = 3;

/// Hears of a backend's doings; its session. Any thread, the backend's state queue among
/// them: must not wait.
class BackendObserver {
 public:
  virtual ~BackendObserver() = default;

  /// The backend's state is 2 now, whoever has set it.
  virtual void backendWasEnabled() = 0;
  /// So many events have gone. Their client may have been told their text already.
  virtual void eventsWereLost(EventLoss cause, size_t count) = 0;
};

}  // namespace zun
