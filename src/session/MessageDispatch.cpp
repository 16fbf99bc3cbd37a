#include <utility>

#include "backends/MessageBlob.h"
#include "session/ReportingdSession.h"
#include "util/Conversions.h"
#include "zunreporting/Keys.h"

namespace zun {

using namespace zunreporting;

namespace {

constexpr const char* kNoBackends = "No backends available to send message";

/// Whether a backend's lists let a category through; a line says why not.
bool admits(const BackendTable::Entry& entry, uint16_t category, const char* operation, SystemLog& log) {
  if (!entry.backend->isWhitelistedEvent(category)) {
    log.debug("{}: Dropping event with category {} as it is not whitelisted for backend {}", operation,
              category, entry.name);
    return false;
  }
  if (entry.backend->isBlacklistedEvent(category)) {
    log.debug("{}: Dropping event with category {} as it is blacklisted for backend {}", operation, category,
              entry.name);
    return false;
  }
  return true;
}

}  // namespace

// One message

void ReportingdSession::sendMessageWithDictionary(const Dictionary& message, ResponseReply reply) {
  log().debug("sendMessageWithDictionary: Sending message for session {}", sessionID());
  const std::optional<std::string> response = sendMessageWithDictionary(message);
  if (reply) reply(response);
}

std::optional<std::string> ReportingdSession::sendMessageWithDictionary(const Dictionary& message) {
  if (!hasBackends()) {
    log().debug("sendMessageWithDictionary: No backends available to send message");
    return std::nullopt;
  }
  const Value& category = message[kZunReportingMessageParametersCategory];
  if (category.isNone()) {
    log().debug("sendMessageWithDictionary: Missing mandatory parameter 'category'");
    return std::nullopt;
  }
  const Value& type = message[kZunReportingMessageParametersType];
  if (type.isNone()) {
    log().debug("sendMessageWithDictionary: Missing mandatory parameter 'type'");
    return std::nullopt;
  }
  const auto method = static_cast<uint16_t>(category.intValue());
  const auto respCode = static_cast<uint16_t>(type.intValue());
  const Value& payload = message[kZunReportingMessageParametersPayload];
  const int32_t flag = message[kZunReportingMessageParametersFlag].int32Value();
  const TimeValue timestamp = services_.platform.clock.timeOfDay();
  if (hasAggregator() || mayHaveAncestors()) {
    const Dictionary* const entries = payload.dictionary();
    aggregateMessage(configuredSessionInfo(), secondsOf(timestamp), method, respCode,
                     entries == nullptr ? std::nullopt : std::optional(*entries));
  }
  return dispatchToBackends(messageBlob(payload), timestamp, method, respCode, flag);
}

Dictionary ReportingdSession::messageBlob(const Value& payload) {
  Dictionary blob = Dictionary::withCapacity(2);
  if (hasHierarchyToken_) {  // without one there is nothing shared, nor a lock to wait for
    const RecursiveMutexLock lock(delegate_->objectLock());
    if (auto sharedData = delegate_->sharedDataForSession(*this))
      blob.set(Value::literal(kZunReportingMessageBlobSharedData), std::move(*sharedData));
  }
  if (payload.isDictionary()) blob.set(Value::literal(kZunReportingMessageBlobClientData), payload);
  return blob;
}

std::optional<std::string> ReportingdSession::dispatchToBackends(const Dictionary& blob,
                                                                 const TimeValue& timestamp,
                                                                 uint16_t category, uint16_t type,
                                                                 int32_t flag) {
  std::optional<std::string> result;
  for (const auto& entry : backends_->entries) {
    if (!admits(entry, category, "sendMessageWithDictionary", log())) continue;
    std::optional<std::string> response = entry.backend->sendMessage(blob, timestamp, category, type, flag);
    if (!response) continue;
    services_.messageLog.writeToLogFile(
        fmt::format("[{} -> sendMessageWithDictionary] {}", entry.name, *response));
    if (entry.role == ResponseRole::kAnswer || (entry.role == ResponseRole::kFallback && !result))
      result = std::move(response);
  }
  return result;
}

void ReportingdSession::internalSendMessage(const Dictionary& payload, uint16_t method, uint16_t respCode) {
  const Dictionary message = {
      {Value::literal(kZunReportingMessageParametersCategory), method},
      {Value::literal(kZunReportingMessageParametersType), respCode},
      {Value::literal(kZunReportingMessageParametersPayload), payload},
      {Value::literal(kZunReportingMessageParametersFlag), 0},
  };
  sendMessageWithDictionary(message);
  log().debug("internalSendMessage: Sent internal message (method:{} respCode:{})", method, respCode);
}

// Flush

/// Tells the client once: at the first backend's error, else when all have finished.
///
/// Held by the backends' completions. When the last of them is let go without having
/// been called, the client's completion goes with it.
class ReportingdSession::FlushCountdown final {
 public:
  FlushCountdown(size_t backends, FlushReply completion)
      : remaining_(static_cast<int64_t>(backends)), completion_(std::move(completion)) {}

  void backendFinished(const std::optional<std::string>& result, const std::optional<Error>& error) {
    if (const FlushReply due = finishOne(error.has_value())) due(result, error);
  }

 private:
  /// The client's completion when it is due, which is then no longer here.
  FlushReply finishOne(bool failed) {
    const MutexLock lock(classLock_);
    --remaining_;
    if (failed || remaining_ <= 0) return std::move(completion_);
    return nullptr;
  }

  // Completions come from the queues of many backends at once; one lock serves all
  // sessions, since it is held for two instructions.
  inline static Mutex classLock_;

  int64_t remaining_ GUARDED_BY(classLock_);
  FlushReply completion_ GUARDED_BY(classLock_);
};

void ReportingdSession::flushMessagesWithCompletion(FlushReply completion) {
  log().debug("flushMessagesWithCompletion: Flushing messages for session {}", sessionID());
  internalFlushMessagesWithCompletion(std::move(completion));
}

void ReportingdSession::internalFlushMessagesWithCompletion(FlushReply completion) {
  if (!hasBackends()) {
    log().debug("internalFlushMessagesWithCompletion: {}", kNoBackends);
    if (completion) completion(std::nullopt, reportingError(kNoBackends));
    return;
  }
  const auto countdown = std::make_shared<FlushCountdown>(backends_->entries.size(), std::move(completion));
  // The session may be gone when a post ends: nothing here refers to it.
  for (const auto& entry : backends_->entries) {
    entry.backend->flushMessagesWithCompletion(
        [countdown, name = entry.name, &log = log(), &messageLog = services_.messageLog](
            const std::optional<std::string>& result, const std::optional<Error>& error) {
          log.debug("internalFlushMessagesWithCompletion: {}", name);
          if (result) messageLog.writeToLogFile(fmt::format("[{} -> flushMessages] {}", name, *result));
          countdown->backendFinished(result, error);
        });
  }
}

// One message of a session described with it

std::optional<ClientSessionInterface::Refusal> ReportingdSession::sendMessageWithSessionInfo(
    const Dictionary& sessionInfo, const std::optional<Dictionary>& userInfo, uint16_t category,
    uint16_t type, const std::optional<Dictionary>& payload, StringReply reply) {
  if (!sessionInfo.contains(kZunReportingSessionInfoClientType) ||
      !sessionInfo.contains(kZunReportingSessionInfoSessionID)) {
    log().error("sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo");
    if (reply) reply("Could not retrieve identifiers from sessionInfo");
    return std::nullopt;
  }
  // The former user information stays where this one is none, or nothing is sent by it.
  for (const auto& user : {userInfo, this->userInfo()}) {
    if (auto refusal = refusalOf({sessionInfo, user, frameworks_, digestKey_}, "sendMessageWithSessionInfo"))
      return refusal;
  }
  adoptSessionInfo(sessionInfo);
  delegate_->updateCorrelatedSessions(*this);
  log().debug("sendMessageWithSessionInfo: Sending message with session info for session {}", sessionID());

  const std::optional<Dictionary> storebag = delegate_->storebagForSession(*this);
  if (storebag) sendOneMessageWithSessionInfo(sessionInfo, userInfo, storebag, category, type, payload);
  if (reply) reply(storebag ? "finished" : "storebag not available");
  return std::nullopt;
}

void ReportingdSession::sendOneMessageWithSessionInfo(const std::optional<Dictionary>& sessionInfo,
                                                      const std::optional<Dictionary>& userInfo,
                                                      const std::optional<Dictionary>& storebag,
                                                      uint16_t category, uint16_t type,
                                                      const std::optional<Dictionary>& payload) {
  log().debug("sendOneMessageWithSessionInfo: Sending single message with sessionID {}",
              sessionInfo ? (*sessionInfo)[kZunReportingSessionInfoSessionID].intValue() : 0);
  if (!sessionInfo || !storebag) {
    log().error("sendOneMessageWithSessionInfo: Attempted to send message with one or more nil parameters");
    return;
  }
  if (!userInfo) {
    log().error("sendOneMessageWithSessionInfo: userInfo must be present and valid!!! Aborting method...");
    return;
  }
  services_.identity.copyUniqueDeviceID(deviceid_);
  createBackendsWithStorebag(*storebag);
  if (!hasBackends()) {
    log().error("sendOneMessageWithSessionInfo: No backends available to send single message");
    return;
  }
  receivedUserInfo(userInfo);
  sendOneMessageToBackends(category, type, payload);
}

void ReportingdSession::sendOneMessageToBackends(uint16_t category, uint16_t type,
                                                 const std::optional<Dictionary>& payload) {
  const TimeValue timestamp = services_.platform.clock.timeOfDay();
  std::optional<Dictionary> message = payload;
  if (message && services_.identity.isInternalBuild())
    message->set("SerialNum", services_.identity.serialNumber().value_or("Unknown"));

  for (const auto& entry : backends_->entries) {
    entry.backend->updateState();
    entry.backend->setReportingSessionConnectivityDelegate(connectivityHelper());
    if (!admits(entry, category, "sendOneMessageWithSessionInfo", log())) continue;
    const auto response = entry.backend->sendMessage(message, timestamp, category, type, /*flag=*/0);
    if (!response) continue;
    services_.messageLog.writeToLogFile(
        fmt::format("[{} -> sendOneMessageWithSessionInfo] {}", entry.name, *response));
  }
}

// Shared data

void ReportingdSession::updateSharedDataWithDictionary(const Dictionary& sharedData) {
  const RecursiveMutexLock lock(delegate_->objectLock());
  delegate_->updateSharedDataForSession(*this, sharedData);
}

void ReportingdSession::updateSharedDataForKey(const std::string& key, const Value& value) {
  const RecursiveMutexLock lock(delegate_->objectLock());
  if (value.isNone()) {
    delegate_->removeObjectFromSharedDataForSession(*this, key);
  } else {
    delegate_->updateSharedDataForSession(*this, {{key, value}});
  }
}

// Digest key

std::optional<ClientSessionInterface::Refusal> ReportingdSession::setDigestKey(const std::string& key,
                                                                               int32_t algorithm) {
  SessionDescription description = currentDescription();
  description.digestKey = key;
  if (auto refusal = refusalOf(description, "setDigestKey")) return refusal;
  digestKey_ = key;
  if (backends_ == nullptr) return std::nullopt;
  for (const auto& entry : backends_->entries) {
    if (entry.name != kZunReportingBackendQRS) continue;
    entry.backend->setDigestKey(key);
    // Handed on, not kept: after a change of user the backend signs with the default again.
    entry.backend->setDigestAlgorithm(algorithm);
  }
  return std::nullopt;
}

}  // namespace zun
