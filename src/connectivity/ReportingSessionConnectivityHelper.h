#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "connectivity/ConnectionMode.h"
#include "connectivity/QuorxTransactionHolder.h"
#include "connectivity/ReportingSessionConnectivityInterface.h"
#include "platform/PlatformServices.h"
#include "platform/URLSession.h"

namespace zun {

class ConnectivityHelperTask;

/// Wraps one URL session of one mode and the process-alive references of the sessions
/// that it served.
///
///   inactive ──activate──▶ in use ◀──increment── idle (release timer runs)
///                             └──last decrement──▶ │ fired: owner hears 0, invalidates
///                                                  ▼
///                           invalidating (tasks finish) ──▶ finished: references handed back
///
/// Threading: any thread; work is done on the helper's own serial queue, completions
/// are called there and must not call back synchronously.
/// Ownership: shared by the agent's table and its sessions; backends hold it weakly.
/// The URL session keeps it until it has become invalid.
class ReportingSessionConnectivityHelper final
    : public ReportingSessionConnectivityInterface,
      public URLSessionDelegate,
      public std::enable_shared_from_this<ReportingSessionConnectivityHelper> {
 public:
  /// Hears the usage count that the owner is to act on: 0 means nobody uses it.
  using ReleaseCallback = UniqueFunction<void(int32_t usageCount)>;

  static constexpr uint32_t kDefaultReleaseTimeout = 30;  // seconds

  static ConnectionMode POSTRequestMode() { return kPOSTMode; }
  static ConnectionMode GETRequestMode() { return kGETMode; }

  /// `delegate` may be empty (the storebag fetcher's helper keeps nothing alive).
  static std::shared_ptr<ReportingSessionConnectivityHelper> create(
      const PlatformServices& platform, std::weak_ptr<QuorxTransactionHolder> delegate, ConnectionMode mode);
  ~ReportingSessionConnectivityHelper() override;

  // Lifetime; see the diagram. Timeouts are seconds; 0 keeps the helper for ever.
  void activate(uint32_t releaseTimeout);
  void setReleaseTimeout(uint32_t releaseTimeout);
  void ownerIncrementUsageCount();
  void ownerDecrementUsageCountWithBlock(ReleaseCallback callback, std::shared_ptr<SerialQueue> queue);
  /// Takes over one process-alive reference from a session that ends.
  void incrementTotalSessionsServedCount();
  void releaseAllQuorxTransactions();
  void invalidate();

  // ReportingSessionConnectivityInterface
  void postURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion completion) override;
  void getURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion completion) override;

  // (URLSessionDelegate overrides, private state: added with the implementation.)
};

}  // namespace zun
