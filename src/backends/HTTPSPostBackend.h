#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backends/EventBatch.h"
#include "backends/FilterTable.h"
#include "backends/ZunReportingBackend.h"

namespace zun {

/// Posts events as JSON records over HTTPS, as its storebag section says: which
/// clients report, which share of devices, what is filtered, and where it goes.
///
///   message ──▶ record ──filters──▶ posted at once (realtime, or batching off)
///                            └────▶ batch ──threshold, flush, realtime event──▶ one post
///
/// The first post whose text could be logged freezes the configuration, so that the
/// decisions under which data first left the device hold for the backend's lifetime.
///
/// Threading: as ZunReportingBackend says; the batch lives on the state queue. Posts
/// complete on the helper's queue.
/// Ownership: a post under way holds the backend weakly.
class HTTPSPostBackend final : public ZunReportingBackend {
 public:
  /// None without a profile, a product family, or a list of clients in the profile.
  static std::shared_ptr<HTTPSPostBackend> initWithName(const ReportingServices& services,
                                                        std::string_view name, const Value& profile,
                                                        const std::optional<std::string>& productFamily);

  using ZunReportingBackend::sendMessage;

  int32_t updateState() override;
  std::optional<std::string> sendMessage(const std::optional<Dictionary>& message, const TimeValue& timestamp,
                                         uint16_t method, uint16_t respCode, uint16_t eventID,
                                         int32_t flag) override;
  std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion) override;
  void setCorrelatedSessionID(const std::string& identifier) override;
  /// As of the last turn of the state queue that changed the batch; does not wait for one.
  [[nodiscard]] uint32_t batchedEventsSize() const override;

  // Steps of the above that stand for themselves. The session's calls only.

  /// The state that the profile and the user information lead to now. Takes over the
  /// settings of the client entry that applies.
  int32_t updateBackendState();
  [[nodiscard]] bool isFrameworkEnabledForClient(const Dictionary& client) const;
  /// An empty list keeps the filters there are.
  void createFiltersFromArray(const Array& filters);
  /// True if the entry supplied the URL of batched posts.
  bool updatePostLink(const Dictionary& client);
  /// `client` may be null: no entry applies.
  void resetBackendStateWithClient(const Dictionary* client);

  [[nodiscard]] Dictionary newEventDictfromPayload(const Dictionary& payload, const TimeValue& timestamp,
                                                   uint16_t method, uint16_t respCode,
                                                   uint16_t eventID) const;
  /// Adds the user information and the shared data (null: none), then filters.
  void prepareEventForMessage(Dictionary& record, const Dictionary* frameworkData) const;
  void filterEvent(Dictionary& record) const { filters_.filterEvent(record); }

  /// Gives the text of a flush that it led to.
  std::optional<std::string> batchEvent(Dictionary record);

  /// The post's body as compact JSON; none if it cannot be made. Its readable form goes
  /// to `prettyJsonString` (may be null) where logging is allowed.
  [[nodiscard]] std::optional<std::string> createMessageForPostAndLogging(
      std::vector<Dictionary> records, std::optional<std::string>* prettyJsonString) const;
  /// Method and response code belong to the post of a single event. Without a
  /// connectivity helper nothing is sent and `completion` is let go. The observer hears
  /// of the `events` in it where they are not sent.
  void postJSONMessage(std::string json, int32_t flag, std::optional<uint16_t> method,
                       std::optional<uint16_t> responseCode, FlushCompletion completion, size_t events = 1);

  [[nodiscard]] const std::optional<std::string>& postURL() const { return postURL_; }
  void setPostURL(std::optional<std::string> url) { postURL_ = std::move(url); }

 private:
  /// Whether the user's choice about diagnostic data is overridden by the storebag, and
  /// what that choice is.
  enum DNUType : int32_t { kNoOverride = 0, kOverrideWhileOff = 1, kOverrideWhileOn = 2 };

  using Text = std::optional<std::string_view>;
  struct Names {
    Text client;
    Text service;
  };

  HTTPSPostBackend(const ReportingServices& services, std::string name, Dictionary profile,
                   const std::string& productFamily);
  std::optional<std::string> userDefaultURL(std::string_view key) const;

  // Configuration
  [[nodiscard]] Names namesFromUserInfo() const;
  [[nodiscard]] static bool matchClientNameAndServiceID(const Dictionary& client, const Names& names);
  void applyExpedite(const Array& clients, const Names& names);
  int32_t stateWithoutUserInfo(const Array& clients);
  bool allowsDiagnostics(const Dictionary& client);
  bool allowsDevice(const Dictionary& client, const std::optional<std::string>& region) const;
  [[nodiscard]] Value thresholdForRegion(const Dictionary& client,
                                         const std::optional<std::string>& region) const;
  int32_t samplingDecision(const Dictionary& client, const Value& threshold);
  void adoptClient(const Dictionary& client, const Names& names, int32_t state);
  void updateEventLists(const Dictionary& client);

  // Sending
  void addSessionStopKeys(Dictionary& payload) const;
  std::optional<std::string> sendNow(Dictionary record, int32_t state, uint16_t method, uint16_t respCode,
                                     int32_t flag);
  void append(Dictionary record, int64_t method, int32_t count);
  [[nodiscard]] bool hasBatch() const;
  enum class FlushObstacle { kNone, kNothingToFlush, kUserInfoMissing };
  struct TakenBatch {
    FlushObstacle obstacle = FlushObstacle::kNone;
    int32_t state = ZunBackendStateEnabled;
    std::vector<Dictionary> records;  // to be posted, or to be dropped where there is nothing to flush
    size_t unfilteredRecords = 0;
  };
  /// State queue only.
  TakenBatch takeBatch();
  void reportDropped(const TakenBatch& batch) const;
  /// State queue only.
  void publishBatchSize();
  [[nodiscard]] bool admitsEvent(uint16_t method) const;
  std::vector<Dictionary> admittedRecords(std::vector<Dictionary> records) const;

  // Posting
  [[nodiscard]] Value clientIdentifier() const;
  [[nodiscard]] bool mayLogEvents() const;
  [[nodiscard]] URLRequest requestForPost(const std::string& url, std::optional<uint16_t> method,
                                          std::optional<uint16_t> responseCode) const;

  std::optional<std::string> postURL_;
  bool useDefaultPostURL_ = false;  // postURL_ is the user defaults': storebags do not replace it
  std::optional<std::string> realtimePostURL_;
  bool useDefaultRealtimePostURL_ = false;
  FilterTable filters_;
  int32_t eventThreshold_ = 49;
  int32_t extrasOnInternal_ = 0;
  Value overrideSampling_;
  int32_t dnuType_ = kNoOverride;
  const bool dnuEnabled_;  // the user lets diagnostic data leave the device
  const bool forceEventLogging_;
  const std::string uuidRespectDnu_;
  const std::string uuidOverrideDnu_;
  std::optional<std::string> uuidCustom_;
  bool immutable_ = false;
  std::optional<EventBatch> batchedEvents_;  // state queue only
  std::atomic<uint32_t> batchedEventsSize_{0};
};

}  // namespace zun
