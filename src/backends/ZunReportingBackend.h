#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backends/BackendObserver.h"
#include "backends/EventNumberList.h"
#include "connectivity/ReportingSessionConnectivityInterface.h"
#include "platform/Mutex.h"
#include "platform/SandboxExtension.h"
#include "platform/SerialQueue.h"
#include "platform/UniqueFunction.h"
#include "util/ReportingServices.h"
#include "values/Error.h"
#include "values/Value.h"

namespace zun {

/// Where a backend stands. Plain numbers, because sessions compare and copy them.
enum BackendState : int32_t {
  ZunBackendStateAwaitingUserInfo = 0,
  ZunBackendStateDisabled = 1,
  ZunBackendStateEnabled = 2,
  ZunBackendStateSampledOut = 3,
};

/// What a session forwards events to: the common part of every kind of backend.
///
/// Threading: one session's calls, one at a time, and beside them, from other sessions'
/// threads and from completions, `state`, `setState`, `samplingThreshold`,
/// `setSamplingThreshold`, `setCorrelatedSessionID` and `batchedEventsSize`. The state
/// lives on the state queue; the properties that both sides touch have a lock.
/// Ownership: held by its session; holds the connectivity helper weakly.
class ZunReportingBackend : public std::enable_shared_from_this<ZunReportingBackend> {
 public:
  /// Called once with (result, error), either of which may be absent, or never.
  using FlushCompletion =
      UniqueFunction<void(const std::optional<std::string>& result, const std::optional<Error>& error)>;

  /// The backend that a storebag names, or none: an unknown name (an error line) or a
  /// profile that the backend refuses. `profile` may be any value; only a dictionary
  /// counts.
  static std::shared_ptr<ZunReportingBackend> newBackendWithName(
      const ReportingServices& services, std::string_view name, const Value& profile,
      const std::optional<std::string>& productFamily, int32_t clientType);

  virtual ~ZunReportingBackend();
  ZunReportingBackend(const ZunReportingBackend&) = delete;
  ZunReportingBackend& operator=(const ZunReportingBackend&) = delete;

  /// SHA-256 in lower-case hexadecimal of the first so many UTF-8 bytes as the text has
  /// UTF-16 code units. Servers hash the same way, so it stays so.
  [[nodiscard]] static std::string convertIntoSHA256(const Value& text);

  // What the session tells a new backend, in this order.
  void setSessionID(uint32_t sessionID);
  void setCompType(int32_t clientType);
  void setClientVersion(uint16_t version);
  void setUdid(std::string udid);
  void setProductVersion(std::optional<std::string> version);
  void setBuildVersion(std::optional<std::string> version);
  void setHardwareType(std::optional<std::string> type);
  void setIsInternal(bool isInternal);
  void setRequireUserInfo(bool requireUserInfo);
  void setBatchEvents(bool batchEvents);
  void setUserInfoDict(std::optional<Dictionary> userInfo);
  /// "major.middle.minor"; missing numbers are 0, each keeps its low 8 bits.
  void setSelfVersion(std::string_view version);
  void setStartTimestamp(const TimeValue& time);

  /// Before the backend is used by anybody.
  void setObserver(std::shared_ptr<BackendObserver> observer);

  // Later.
  void setReportingSessionConnectivityDelegate(std::weak_ptr<ReportingSessionConnectivityInterface> helper);
  void setCombinedSessionIDString(std::string identifier);
  void setDigestKey(std::optional<std::string> key);
  void setDigestAlgorithm(int32_t algorithm);

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] std::optional<std::string> displayURL() const;

  /// Waits for writes under way; sees them.
  [[nodiscard]] int32_t state() const;
  /// Does not wait.
  void setState(int32_t state);
  /// The threshold in force (a number, or what the storebag has in its place), or none.
  [[nodiscard]] Value samplingThreshold() const;
  void setSamplingThreshold(Value threshold);

  /// Sends one message under the next event number. Gives the text of what was sent
  /// where the backend has one. A message may be missing: its event is still one.
  std::optional<std::string> sendMessage(const std::optional<Dictionary>& message, const TimeValue& timestamp,
                                         uint16_t method, uint16_t respCode, int32_t flag);

  [[nodiscard]] bool isWhitelistedEvent(int32_t event) const;
  [[nodiscard]] bool isBlacklistedEvent(int32_t event) const;

  // The backend interface. What the base does is what a backend without a use for the
  // operation does.

  /// Decides the state anew, sets it and gives it.
  virtual int32_t updateState();
  virtual std::optional<std::string> sendMessage(const std::optional<Dictionary>& message,
                                                 const TimeValue& timestamp, uint16_t method,
                                                 uint16_t respCode, uint16_t eventID, int32_t flag);
  virtual std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion);
  /// Uploads a client's file. True once that has been attempted. May block for as long
  /// as the upload takes.
  virtual bool uploadFileAtPath(const std::string& path, const SandboxExtensionToken& extensionToken);
  /// Uploads log records. True when a server took them. May block likewise.
  virtual bool uploadLogData(const Array& logData);
  virtual void setCorrelatedSessionID(const std::string& identifier);
  /// Estimated bytes of the events that wait.
  [[nodiscard]] virtual uint32_t batchedEventsSize() const;
  /// Before the session lets go of it.
  virtual void cleanup();

 protected:
  ZunReportingBackend(const ReportingServices& services, std::string name, Dictionary profile,
                      const std::string& productFamily);

  [[nodiscard]] SystemLog& log() const { return services_.platform.log; }
  /// The identifier that joins correlated sessions: a string, or none. Any thread.
  [[nodiscard]] Value combinedSessionIDString() const;
  /// The first three numbers of a dotted version; missing ones are 0, each keeps its
  /// low 8 bits.
  [[nodiscard]] static std::array<uint8_t, 3> versionNumbers(std::string_view version);
  /// Code of the client type in what goes out.
  [[nodiscard]] std::string_view senderCode() const;

  const ReportingServices services_;
  const std::string name_;
  const Dictionary profile_;
  const std::shared_ptr<SerialQueue> stateQueue_;
  int32_t state_ = ZunBackendStateAwaitingUserInfo;  // state queue only
  const double samplingFactor_;                      // this backend's draw in [0, 0.9999]

  // The session's calls only. Text is kept as values, so that records share it; one
  // that is not there is none.
  const Value productFamily_;
  Value productVersion_;
  Value buildVersion_;
  Value hardwareType_;
  std::optional<std::string> displayURL_;
  std::optional<std::string> udid_;
  std::optional<Dictionary> userInfoDict_;
  double startTimeStamp_ = 0;  // seconds since 1970
  uint32_t sessionID_ = 0;
  int32_t compType_ = 0;
  uint16_t clientVersion_ = 0;
  uint16_t eventID_ = 0;
  uint8_t selfVersionMajor_ = 0;
  uint8_t selfVersionMiddle_ = 0;
  uint8_t selfVersionMinor_ = 0;
  Value selfVersionText_ = Value::literal("0.0");  // "3.2", or "3.2.1" where the minor number is not 0
  bool isInternal_ = false;
  bool requireUserInfo_ = false;
  bool batchEvents_ = false;
  uint8_t shouldUseWiFiOnly_ = 0;
  std::optional<EventNumberList> eventWhitelist_;
  std::optional<EventNumberList> eventBlacklist_;
  std::optional<std::string> digestKey_;
  int32_t digestAlgorithm_ = 0;
  std::weak_ptr<ReportingSessionConnectivityInterface> reportingSessionConnectivityDelegate_;
  std::shared_ptr<BackendObserver> observer_;  // may be null

 private:
  mutable Mutex propertyMutex_;
  Value combinedSessionIDString_ GUARDED_BY(propertyMutex_);
  Value samplingThreshold_ GUARDED_BY(propertyMutex_);
};

}  // namespace zun
