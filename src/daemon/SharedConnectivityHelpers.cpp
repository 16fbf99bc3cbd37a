#include "daemon/SharedConnectivityHelpers.h"

#include <unordered_map>
#include <utility>

#include "values/Check.h"

namespace zun {

/// Outlives its owner in queued work. State queue only.
struct SharedConnectivityHelpers::Table {
  /// A helper's own count follows the table's, on the helper's own queue.
  struct Shared {
    std::shared_ptr<ReportingSessionConnectivityHelper> helper;
    size_t owners = 0;
    uint64_t releases = 0;
  };

  explicit Table(SystemLog& logToUse) : log(logToUse) {}

  void usageCountReached(int32_t usageCount, const std::string& userInfoKey,
                         const std::shared_ptr<ReportingSessionConnectivityHelper>& helper, uint64_t release);

  void share(const std::string& userInfoKey,
             const std::shared_ptr<ReportingSessionConnectivityHelper>& helper);

  SystemLog& log;
  std::unordered_map<std::string, Shared> helpers;
  bool hasToldOfOverflow = false;
};

void SharedConnectivityHelpers::Table::share(
    const std::string& userInfoKey, const std::shared_ptr<ReportingSessionConnectivityHelper>& helper) {
  const bool isFull = helpers.size() >= kMaximumHelpers;
  if (!isFull) helpers.emplace(userInfoKey, Shared{helper, 1, 0});
  if (isFull && !hasToldOfOverflow) {
    log.error(
        "requestSharedConnectivityHelperForReportingSession: "
        "{} connectivity helpers are shared already, further ones are not",
        helpers.size());
  }
  hasToldOfOverflow = isFull;
}

void SharedConnectivityHelpers::Table::usageCountReached(
    int32_t usageCount, const std::string& userInfoKey,
    const std::shared_ptr<ReportingSessionConnectivityHelper>& helper, uint64_t release) {
  if (usageCount != 0) return;
  const auto found = helpers.find(userInfoKey);
  if (found == helpers.end() || found->second.helper != helper) return;
  // A new owner is on its way to the helper's count: it was promised this helper, and would
  // be left with one that drops its posts.
  if (found->second.owners > 0) return;
  // The count may have reached 0 by a later release, whose own timer has just begun: only
  // the last one's answer says that the whole timeout has passed.
  if (found->second.releases != release) return;
  log.debug(
      "releaseSharedConnectivityHelperForReportingSession: "
      "Usage count of shared connectivity helper for userInfoKey {} reached zero. Invalidating the helper",
      userInfoKey);
  helpers.erase(found);
  helper->invalidate();
}

SharedConnectivityHelpers::SharedConnectivityHelpers(const PlatformServices& platform,
                                                     std::weak_ptr<QuorxTransactionHolder> delegate)
    : platform_(platform),
      delegate_(std::move(delegate)),
      stateQueue_(SerialQueue::create("com.vantix.ZunReportingAgentStateQueue", platform.executor)),
      table_(std::make_shared<Table>(platform.log)) {}

SharedConnectivityHelpers::~SharedConnectivityHelpers() = default;

std::shared_ptr<ReportingSessionConnectivityHelper> SharedConnectivityHelpers::copySharedConnectivityHelper(
    const std::string& userInfoKey, ConnectionMode mode) {
  return stateQueue_->sync([&] {
    SystemLog& log = table_->log;
    log.debug(
        "requestSharedConnectivityHelperForReportingSession: "
        "Requesting shared connectivity helper for userInfoKey {}",
        userInfoKey);
    const auto found = table_->helpers.find(userInfoKey);
    std::shared_ptr<ReportingSessionConnectivityHelper> helper;
    if (found != table_->helpers.end()) {
      helper = found->second.helper;
      ++found->second.owners;
      log.debug(
          "requestSharedConnectivityHelperForReportingSession: "
          "Found existing shared connectivity helper for userInfoKey {}",
          userInfoKey);
    } else {
      log.debug(
          "requestSharedConnectivityHelperForReportingSession: "
          "Creating shared connectivity helper for userInfoKey {}",
          userInfoKey);
      helper = ReportingSessionConnectivityHelper::create(platform_, delegate_, mode);
      table_->share(userInfoKey, helper);
    }
    log.debug(
        "requestSharedConnectivityHelperForReportingSession: "
        "Incrementing usage of shared connectivity helper for userInfoKey {}",
        userInfoKey);
    helper->ownerIncrementUsageCount();
    return helper;
  });
}

void SharedConnectivityHelpers::releaseSharedConnectivityHelper(
    std::string userInfoKey, std::weak_ptr<ReportingSessionConnectivityHelper> released) {
  stateQueue_->async([table = table_, queue = stateQueue_, userInfoKey = std::move(userInfoKey),
                      released = std::move(released)] {
    table->log.debug(
        "releaseSharedConnectivityHelperForReportingSession: "
        "Releasing shared connectivity helper for userInfoKey {}",
        userInfoKey);
    const auto found = table->helpers.find(userInfoKey);
    // A helper that was not shared leaves the one of its key alone.
    if (found == table->helpers.end() || found->second.helper != released.lock()) return;
    if (found->second.owners > 0) --found->second.owners;
    table->log.debug(
        "releaseSharedConnectivityHelperForReportingSession: "
        "Decrementing usage count of shared connectivity helper for userInfoKey {}",
        userInfoKey);
    auto callback = [weakTable = std::weak_ptr(table), weakHelper = released, userInfoKey,
                     release = ++found->second.releases](int32_t usageCount) {
      const auto liveTable = weakTable.lock();
      const auto helper = weakHelper.lock();
      if (liveTable && helper) liveTable->usageCountReached(usageCount, userInfoKey, helper, release);
    };
    found->second.helper->ownerDecrementUsageCountWithBlock(std::move(callback), queue);
  });
}

}  // namespace zun
