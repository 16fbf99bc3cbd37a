#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "backends/ZunReportingBackend.h"

namespace zun {

/// A backend that does what its storebag section says, and keeps what it was told:
///
///   "state"            what `updateState` sets and gives (2 where absent)
///   "response"         what a message is answered with
///   "flushResult", "flushError"
///   "flush"            "later": completions are kept; "dropped": let go uncalled
///   "uploads"          whether it can upload files and log data
///   "batched"          bytes of the events that wait
///   "display_url", "event_whitelist", "event_blacklist"
class TestBackend final : public ZunReportingBackend {
 public:
  struct Sent {
    Dictionary message;  // empty where it is missing
    TimeValue timestamp;
    uint16_t method;
    uint16_t respCode;
    uint16_t eventID;
    int32_t flag;
    bool isMissing;
  };

  static std::shared_ptr<TestBackend> create(const ReportingServices& services, std::string_view name,
                                             const Value& profile,
                                             const std::optional<std::string>& productFamily,
                                             int32_t clientType) {
    return std::shared_ptr<TestBackend>(new TestBackend(services, std::string(name), *profile.dictionary(),
                                                        productFamily.value_or(""), clientType));
  }

  using ZunReportingBackend::sendMessage;

  /// Called when `updateState` has queued the new state.
  inline static std::function<void()> onStateUpdate;

  int32_t updateState() override {
    ++stateUpdates;
    trace.emplace_back("updateState");
    const Value& state = profile_["state"];
    setState(state.isNone() ? ZunBackendStateEnabled : state.int32Value());
    if (onStateUpdate) onStateUpdate();
    return state.isNone() ? ZunBackendStateEnabled : state.int32Value();
  }
  std::optional<std::string> sendMessage(const std::optional<Dictionary>& message, const TimeValue& timestamp,
                                         uint16_t method, uint16_t respCode, uint16_t eventID,
                                         int32_t flag) override {
    sent.push_back({message.value_or(Dictionary()), timestamp, method, respCode, eventID, flag, !message});
    trace.push_back("send " + std::to_string(method) + " " + std::to_string(respCode));
    if (onCall) onCall();
    return textOf("response");
  }
  std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion) override {
    ++flushes;
    trace.emplace_back("flush");
    const std::string_view how = profile_["flush"].stringValue();
    if (how == "later") {
      heldFlushes.push_back(std::move(completion));
    } else if (how != "dropped") {
      completion(textOf("flushResult"), errorOf(textOf("flushError")));
    }
    return std::nullopt;
  }
  bool uploadFileAtPath(const std::string& path, const SandboxExtensionToken& extensionToken) override {
    trace.push_back("uploadFileAtPath " + path);
    tokens.push_back(extensionToken);
    if (onCall) onCall();
    return profile_["uploads"].boolValue();
  }
  bool uploadLogData(const Array& logData) override {
    trace.push_back("uploadLogData " + Value(logData).description());
    if (onCall) onCall();
    return profile_["uploads"].boolValue();
  }
  void setCorrelatedSessionID(const std::string& identifier) override {
    if (onCorrelatedSessionID) onCorrelatedSessionID();
    ZunReportingBackend::setCorrelatedSessionID(identifier);
  }
  ~TestBackend() override {
    if (onEnd) onEnd();
  }
  uint32_t batchedEventsSize() const override {
    return static_cast<uint32_t>(profile_["batched"].intValue());
  }
  void cleanup() override {
    ++cleanups;
    trace.emplace_back("cleanup");
  }

  static std::optional<Error> errorOf(const std::optional<std::string>& text) {
    return text ? std::optional(Error{"test", 7, *text}) : std::nullopt;
  }

  // What the session set.
  const ReportingServices& services() const { return services_; }
  uint32_t sessionID() const { return sessionID_; }
  int32_t compType() const { return compType_; }
  uint16_t clientVersion() const { return clientVersion_; }
  std::optional<std::string> udid() const { return udid_; }
  const Value& productVersion() const { return productVersion_; }
  const Value& buildVersion() const { return buildVersion_; }
  const Value& hardwareType() const { return hardwareType_; }
  const Value& productFamily() const { return productFamily_; }
  bool isInternal() const { return isInternal_; }
  bool requireUserInfo() const { return requireUserInfo_; }
  bool batchEvents() const { return batchEvents_; }
  const std::optional<Dictionary>& userInfoDict() const { return userInfoDict_; }
  std::vector<int> selfVersion() const { return {selfVersionMajor_, selfVersionMiddle_, selfVersionMinor_}; }
  double startTimeStamp() const { return startTimeStamp_; }
  std::string combinedID() const { return combinedSessionIDString().description(); }
  std::shared_ptr<ReportingSessionConnectivityInterface> helper() const {
    return reportingSessionConnectivityDelegate_.lock();
  }
  const std::optional<std::string>& digestKey() const { return digestKey_; }
  int32_t digestAlgorithm() const { return digestAlgorithm_; }

  const int32_t factoryClientType;
  std::vector<Sent> sent;
  std::vector<std::string> trace;  // what was asked of it, in order
  std::vector<FlushCompletion> heldFlushes;
  std::vector<SandboxExtensionToken> tokens;
  int stateUpdates = 0;
  int flushes = 0;
  int cleanups = 0;
  std::function<void()> onCall = nullptr;  // a message or an upload came
  std::function<void()> onCorrelatedSessionID = nullptr;
  std::function<void()> onEnd = nullptr;

 private:
  TestBackend(const ReportingServices& services, std::string name, const Dictionary& profile,
              const std::string& productFamily, int32_t clientType)
      : ZunReportingBackend(services, std::move(name), profile, productFamily),
        factoryClientType(clientType) {
    displayURL_ = textOf("display_url");
    if (const Array* list = profile_["event_whitelist"].array()) eventWhitelist_.emplace(*list);
    if (const Array* list = profile_["event_blacklist"].array()) eventBlacklist_.emplace(*list);
  }
  std::optional<std::string> textOf(std::string_view key) const {
    const auto text = profile_[key].string();
    return text ? std::optional<std::string>(*text) : std::nullopt;
  }
};

}  // namespace zun
