#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/ServiceConnection.h"
#include "session/Aggregator.h"
#include "session/BackendTable.h"
#include "session/ClientSessionInterface.h"
#include "session/ReportingdSessionDelegate.h"
#include "session/SessionDescription.h"
#include "session/SessionPosting.h"
#include "util/ReportingServices.h"
#include "values/Value.h"

namespace zun {

/// The daemon's side of one client's reporting session.
///
///   created ──setSessionInfo──▶ configured ──startConfig, storebag there──▶ started
///      └───────────────┴──────── last reference dropped ───────────────────────┘
///                                          ▼
///             torn down: end message, flush, aggregation ended, helper and keep-alive
///                        reference handed back
///
/// Threading: the client's calls come one at a time on its connection's thread; what
/// the agent and other sessions read is listed as "any thread".
/// Ownership: the agent's session list and the connection hold it. Teardown runs once,
/// on the thread that drops the last reference, never under the agent's lock: whoever
/// gets hold of a session under that lock lets go of it after it. Sessions whose last
/// reference goes while their thread tears another one down wait until that is done.
class ReportingdSession final : public ClientSessionInterface,
                                public std::enable_shared_from_this<ReportingdSession> {
 public:
  /// `initWithSessionDelegate:connection:`. `services` outlive the session.
  static std::shared_ptr<ReportingdSession> create(
      const ReportingServices& services, std::shared_ptr<ReportingdSessionDelegate> delegate,
      std::shared_ptr<ServiceConnection> connection,
      BackendFactory backendFactory = &ZunReportingBackend::newBackendWithName);

  ReportingdSession(const ReportingdSession&) = delete;
  ReportingdSession& operator=(const ReportingdSession&) = delete;

  // Any thread.
  [[nodiscard]] uint32_t sessionID() const { return sessionID_; }
  [[nodiscard]] const std::string& sessionIDString() const { return sessionIDString_; }
  /// The client's user id.
  [[nodiscard]] uint32_t user() const { return connection_->user(); }
  [[nodiscard]] Dictionary sessionInfo() const;
  [[nodiscard]] std::optional<Dictionary> userInfo() const;
  [[nodiscard]] uint32_t hierarchyLevel() const;
  [[nodiscard]] std::optional<std::string> hierarchyToken() const;
  /// For whom is kept what the session leaves behind.
  [[nodiscard]] BudgetHolder programHolder() const { return services_.program; }
  /// The client wants copies of what its hierarchy reports.
  [[nodiscard]] bool hasAggregator() const { return aggregator_.isOpen(); }
  /// One line for logs.
  [[nodiscard]] std::string description() const;

  // The agent's calls, from any session's thread, some under the agent's lock.
  void updateCombinedSessionID();
  void syncReportingStates();
  /// Ends the copies to the client, and tells it so, once.
  void shutdownSessionAggregation();

  // For health reports, any thread.
  /// Estimated bytes of the events that wait in the session's backends. Does not wait for them.
  [[nodiscard]] uint64_t batchedEventsSize() const;
  /// Adds what `sessionList`, this session and the storebag cache come to.
  void addSessionsAccumulatedHealthInfoToPayload(
      Dictionary& payload, const std::vector<std::shared_ptr<ReportingdSession>>& sessionList,
      const Dictionary& storebags) const;

  // ClientSessionInterface
  std::optional<std::string> refusalOfClaims(const std::optional<Dictionary>& newSessionInfo,
                                             const std::optional<Dictionary>& newUserInfo) override;
  std::optional<Refusal> setSessionInfo(const Dictionary& sessionInfo,
                                        const std::optional<Dictionary>& userInfo,
                                        const Array& frameworksToCheck, bool hasAggregationBlock) override;
  void startConfigWithCompletionHandler(StatesReply completionHandler) override;
  std::optional<Refusal> fetchStatesWithUserInfo(const std::optional<Dictionary>& userInfo,
                                                 StatesReply completionHandler) override;
  void fetchDisplayURL(StringReply reply) override;
  void sendMessageWithDictionary(const Dictionary& message, ResponseReply reply) override;
  void flushMessagesWithCompletion(FlushReply completion) override;
  void finishSessionGracefully() override;
  void uploadFileAtPath(const std::string& fileURL, const std::string& extensionToken,
                        UploadFileReply completionHandler) override;
  void uploadLogData(const Array& logData, UploadLogReply completionHandler) override;
  std::optional<Refusal> sendMessageWithSessionInfo(const Dictionary& sessionInfo,
                                                    const std::optional<Dictionary>& userInfo,
                                                    uint16_t category, uint16_t type,
                                                    const std::optional<Dictionary>& payload,
                                                    StringReply reply) override;
  void updateSharedDataWithDictionary(const Dictionary& sharedData) override;
  void updateSharedDataForKey(const std::string& key, const Value& value) override;
  std::optional<Refusal> setDigestKey(const std::string& key, int32_t algorithm) override;

  /// What the session posts through; null without user information. Any thread.
  [[nodiscard]] std::shared_ptr<ReportingSessionConnectivityHelper> connectivityHelper() const {
    return posting_->connectivityHelper();
  }

 private:
  /// What other threads read as well.
  struct Shared {
    std::optional<Dictionary> sessionInfo;  // none until configured
    std::optional<Dictionary> userInfo;
    uint32_t hierarchyLevel = 0;
    std::optional<std::string> hierarchyToken;
    std::shared_ptr<const BackendTable> backends;  // none until started
  };
  /// One flush's wait for all backends.
  class FlushCountdown;

  ReportingdSession(const ReportingServices& services, std::shared_ptr<ReportingdSessionDelegate> delegate,
                    std::shared_ptr<ServiceConnection> connection, BackendFactory backendFactory);
  ~ReportingdSession() override = default;
  class TeardownLine;
  static void tearDown(ReportingdSession* session);
  /// Teardown, before destruction.
  void dealloc();
  [[nodiscard]] Dictionary endPayload() const;
  void handBackKeepAliveReference();

  [[nodiscard]] SystemLog& log() const { return services_.platform.log; }
  [[nodiscard]] std::optional<Dictionary> configuredSessionInfo() const EXCLUDES(mutex_);
  [[nodiscard]] std::shared_ptr<const BackendTable> backendsSnapshot() const EXCLUDES(mutex_);
  /// A storebag that names no backend leaves an empty table. Both calls that answer names
  /// answer an empty list then, as none says that there is no storebag; for all else it is none.
  [[nodiscard]] bool hasBackends() const { return backends_ != nullptr && !backends_->entries.empty(); }

  // ReportingdSession.cpp
  [[nodiscard]] SessionDescription currentDescription() const;
  [[nodiscard]] std::optional<Refusal> refusalOf(const SessionDescription& description,
                                                 std::string_view operation) const;
  void adoptSessionInfo(const Dictionary& sessionInfo) EXCLUDES(mutex_);
  void releaseUserInfo();
  void updateUserInfo(const std::optional<Dictionary>& userInfo);
  void receivedUserInfo(const std::optional<Dictionary>& userInfo);
  void updateSessionWithDefaultSessionInfo();
  void sendStartMessage();

  // MessageDispatch.cpp
  std::optional<std::string> sendMessageWithDictionary(const Dictionary& message);
  std::optional<std::string> dispatchToBackends(const Dictionary& blob, const TimeValue& timestamp,
                                                uint16_t category, uint16_t type, int32_t flag);
  [[nodiscard]] Dictionary messageBlob(const Value& payload);
  void internalSendMessage(const Dictionary& payload, uint16_t method, uint16_t respCode);
  void internalFlushMessagesWithCompletion(FlushReply completion);
  void sendOneMessageWithSessionInfo(const std::optional<Dictionary>& sessionInfo,
                                     const std::optional<Dictionary>& userInfo,
                                     const std::optional<Dictionary>& storebag, uint16_t category,
                                     uint16_t type, const std::optional<Dictionary>& payload);
  void sendOneMessageToBackends(uint16_t category, uint16_t type, const std::optional<Dictionary>& payload);

  // SessionUpload.cpp
  void uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                         UploadFileReply completionHandler);

  // SessionAggregation.cpp
  [[nodiscard]] bool mayHaveAncestors() const { return hasHierarchyToken_ && hierarchyLevel() > 0; }
  void aggregateMessage(const std::optional<Dictionary>& sessionInfo, double timestamp, uint16_t category,
                        uint16_t type, const std::optional<Dictionary>& payload);
  bool sendToAncestor(const std::function<MessageToClient()>& encode);

  // SessionHealthReport.cpp
  static uint64_t addSessionHealthInfo(const ReportingdSession& session, Dictionary& healthReport);

  // ReportingStates.cpp
  void createBackendsWithStorebag(const Dictionary& storebag);
  void publishBackends(std::shared_ptr<const BackendTable> backends) EXCLUDES(mutex_);
  void updateUserInfoForBackends();
  bool updateReportingStates();
  [[nodiscard]] std::optional<std::vector<std::string>> fetchReportingStates() const;

  const ReportingServices services_;
  std::shared_ptr<ReportingdSessionDelegate> delegate_;
  std::shared_ptr<ServiceConnection> connection_;
  const BackendFactory backendFactory_;
  const std::string sessionIDString_;
  const std::shared_ptr<SessionPosting> posting_;
  Aggregator aggregator_;
  std::atomic<uint32_t> sessionID_{0};

  mutable Mutex mutex_;
  Shared shared_ GUARDED_BY(mutex_);

  // The client's thread only, and at last the teardown's.
  std::shared_ptr<const BackendTable> backends_;  // as in shared_, without its lock
  bool hasHierarchyToken_ = false;                // likewise
  bool hadAggregatingAncestor_ = false;           // when the last message came
  Array frameworks_;
  std::optional<std::string> storebagVersion_;
  std::array<char, 41> deviceid_{};  // up to 40 characters and a zero
  bool hasFinishedGracefully_ = false;
  bool hasToldOfRefusedClaim_ = false;
  std::optional<std::string> digestKey_;
  int32_t digestAlgorithm_ = 0;

  ReportingdSession* nextToTearDown_ = nullptr;
};

}  // namespace zun
