#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "platform/PlatformServices.h"
#include "platform/SerialQueue.h"

namespace zun {

/// One connectivity helper per client and service name, shared by their sessions so
/// that short sessions reuse connections.
///
///   absent ──copy──▶ shared ◀──copy── idle (count 0, release timer) ──timeout──▶ absent,
///                       └──last release──▶ │                          helper invalidated
///
/// Threading: any thread. Copying waits for the state queue, releasing does not; the
/// helpers' release callbacks run on that queue, so that none is removed between being
/// found and being counted.
/// Ownership: the agent holds it; it holds the helpers that are shared or idle. What is
/// queued may come after it has gone.
class SharedConnectivityHelpers final {
 public:
  /// More are not shared: a client that makes up a new name with every call must not
  /// fill the table. Sessions beyond get helpers of their own.
  static constexpr size_t kMaximumHelpers = 8192;

  /// `platform` outlives the helpers; `delegate` takes back their process-alive references.
  SharedConnectivityHelpers(const PlatformServices& platform, std::weak_ptr<QuorxTransactionHolder> delegate);
  ~SharedConnectivityHelpers();
  SharedConnectivityHelpers(const SharedConnectivityHelpers&) = delete;
  SharedConnectivityHelpers& operator=(const SharedConnectivityHelpers&) = delete;

  /// The helper of that key, counted once more; a new, inactive one of `mode` if there
  /// is none. An existing one keeps its mode.
  [[nodiscard]] std::shared_ptr<ReportingSessionConnectivityHelper> copySharedConnectivityHelper(
      const std::string& userInfoKey, ConnectionMode mode);

  /// Counts the helper that was copied under that key once less, later. Nothing for one
  /// that is not in the table.
  void releaseSharedConnectivityHelper(std::string userInfoKey,
                                       std::weak_ptr<ReportingSessionConnectivityHelper> released);

 private:
  struct Table;

  const PlatformServices& platform_;
  const std::weak_ptr<QuorxTransactionHolder> delegate_;
  const std::shared_ptr<SerialQueue> stateQueue_;
  const std::shared_ptr<Table> table_;
};

}  // namespace zun
