#include "backends/ZunReportingBackend.h"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "platform/Crypto.h"
#include "storebag/ClientTypes.h"
#include "util/Conversions.h"

namespace zun {

namespace {

constexpr uint32_t kSamplingSteps = 10000;

Value textOrNone(const std::optional<std::string>& text) {
  return text ? Value(*text) : Value();
}

}  // namespace

ZunReportingBackend::ZunReportingBackend(const ReportingServices& services, std::string name,
                                         Dictionary profile, const std::string& productFamily)
    : services_(services),
      name_(std::move(name)),
      profile_(std::move(profile)),
      stateQueue_(
          SerialQueue::create("com.vantix.ZunReportingBackendStateQueue", services.platform.executor)),
      samplingFactor_(services.platform.random.uniformBelow(kSamplingSteps) / double{kSamplingSteps}),
      productFamily_(productFamily) {}

ZunReportingBackend::~ZunReportingBackend() = default;

std::string ZunReportingBackend::convertIntoSHA256(const Value& text) {
  const std::string described = text.isString() ? std::string() : text.description();
  const Value string = text.isString() ? text : Value(described);
  // Never more than there is: each UTF-8 character takes at least as many bytes as units.
  const auto digest = sha256(string.stringValue().substr(0, string.utf16Length()));
  std::string hexadecimal;
  hexadecimal.reserve(digest.size() * 2);
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const uint8_t byte : digest) {
    hexadecimal += kDigits[byte >> 4];
    hexadecimal += kDigits[byte & 15];
  }
  return hexadecimal;
}

void ZunReportingBackend::setSessionID(uint32_t sessionID) {
  sessionID_ = sessionID;
}

void ZunReportingBackend::setCompType(int32_t clientType) {
  // Sender codes are looked up without a check, so nothing else may get in here.
  if (clientType < 0 || clientType >= kClientTypeCount) {
    log().error("ZunReportingBackend(setCompType): no such client type: {}", clientType);
    return;
  }
  compType_ = clientType;
}

void ZunReportingBackend::setClientVersion(uint16_t version) {
  clientVersion_ = version;
}

void ZunReportingBackend::setUdid(std::string udid) {
  udid_ = std::move(udid);
}

void ZunReportingBackend::setProductVersion(std::optional<std::string> version) {
  productVersion_ = textOrNone(version);
}

void ZunReportingBackend::setBuildVersion(std::optional<std::string> version) {
  buildVersion_ = textOrNone(version);
}

void ZunReportingBackend::setHardwareType(std::optional<std::string> type) {
  hardwareType_ = textOrNone(type);
}

void ZunReportingBackend::setIsInternal(bool isInternal) {
  isInternal_ = isInternal;
}

void ZunReportingBackend::setRequireUserInfo(bool requireUserInfo) {
  requireUserInfo_ = requireUserInfo;
}

void ZunReportingBackend::setBatchEvents(bool batchEvents) {
  batchEvents_ = batchEvents;
}

void ZunReportingBackend::setUserInfoDict(std::optional<Dictionary> userInfo) {
  userInfoDict_ = std::move(userInfo);
}

void ZunReportingBackend::setSelfVersion(std::string_view version) {
  std::array<uint8_t, 3> numbers = versionNumbers(version);
  selfVersionMajor_ = numbers[0];
  selfVersionMiddle_ = numbers[1];
  selfVersionMinor_ = numbers[2];
  selfVersionText_ = selfVersionMinor_ == 0
                         ? fmt::format("{}.{}", selfVersionMajor_, selfVersionMiddle_)
                         : fmt::format("{}.{}.{}", selfVersionMajor_, selfVersionMiddle_, selfVersionMinor_);
}

std::array<uint8_t, 3> ZunReportingBackend::versionNumbers(std::string_view version) {
  std::array<uint8_t, 3> numbers{};
  for (uint8_t& number : numbers) {
    const size_t dot = version.find('.');
    number = static_cast<uint8_t>(Value(version.substr(0, dot)).intValue());
    if (dot == std::string_view::npos) break;
    version.remove_prefix(dot + 1);
  }
  return numbers;
}

void ZunReportingBackend::setStartTimestamp(const TimeValue& time) {
  startTimeStamp_ = secondsOf(time);
}

void ZunReportingBackend::setObserver(std::shared_ptr<BackendObserver> observer) {
  observer_ = std::move(observer);
}

void ZunReportingBackend::setReportingSessionConnectivityDelegate(
    std::weak_ptr<ReportingSessionConnectivityInterface> helper) {
  reportingSessionConnectivityDelegate_ = std::move(helper);
}

void ZunReportingBackend::setCombinedSessionIDString(std::string identifier) {
  Value value(identifier);
  const MutexLock lock(propertyMutex_);
  combinedSessionIDString_ = std::move(value);
}

Value ZunReportingBackend::combinedSessionIDString() const {
  const MutexLock lock(propertyMutex_);
  return combinedSessionIDString_;
}

void ZunReportingBackend::setDigestKey(std::optional<std::string> key) {
  digestKey_ = std::move(key);
}

void ZunReportingBackend::setDigestAlgorithm(int32_t algorithm) {
  digestAlgorithm_ = algorithm;
}

std::optional<std::string> ZunReportingBackend::displayURL() const {
  return displayURL_;
}

std::string_view ZunReportingBackend::senderCode() const {
  return senderCodes()[static_cast<size_t>(compType_)];
}

int32_t ZunReportingBackend::state() const {
  return stateQueue_->sync([this] { return state_; });
}

void ZunReportingBackend::setState(int32_t state) {
  stateQueue_->async([self = shared_from_this(), state] {
    self->state_ = state;
    if (state == ZunBackendStateEnabled && self->observer_) self->observer_->backendWasEnabled();
  });
}

Value ZunReportingBackend::samplingThreshold() const {
  const MutexLock lock(propertyMutex_);
  return samplingThreshold_;
}

void ZunReportingBackend::setSamplingThreshold(Value threshold) {
  const MutexLock lock(propertyMutex_);
  std::swap(samplingThreshold_, threshold);
}

std::optional<std::string> ZunReportingBackend::sendMessage(const std::optional<Dictionary>& message,
                                                            const TimeValue& timestamp, uint16_t method,
                                                            uint16_t respCode, int32_t flag) {
  ++eventID_;
  return sendMessage(message, timestamp, method, respCode, eventID_, flag);
}

bool ZunReportingBackend::isWhitelistedEvent(int32_t event) const {
  return !eventWhitelist_ || eventWhitelist_->contains(event);
}

bool ZunReportingBackend::isBlacklistedEvent(int32_t event) const {
  return eventBlacklist_ && eventBlacklist_->contains(event);
}

int32_t ZunReportingBackend::updateState() {
  setState(ZunBackendStateEnabled);
  return ZunBackendStateEnabled;
}

std::optional<std::string> ZunReportingBackend::sendMessage(const std::optional<Dictionary>&,
                                                            const TimeValue&, uint16_t, uint16_t, uint16_t,
                                                            int32_t) {
  return std::nullopt;
}

std::optional<std::string> ZunReportingBackend::flushMessagesWithCompletion(FlushCompletion completion) {
  if (completion) completion(std::nullopt, std::nullopt);
  return std::nullopt;
}

bool ZunReportingBackend::uploadFileAtPath(const std::string&, const SandboxExtensionToken&) {
  return false;
}

bool ZunReportingBackend::uploadLogData(const Array&) {
  return false;
}

void ZunReportingBackend::setCorrelatedSessionID(const std::string& identifier) {
  setCombinedSessionIDString(identifier);
}

uint32_t ZunReportingBackend::batchedEventsSize() const {
  return 0;
}

void ZunReportingBackend::cleanup() {}

}  // namespace zun
