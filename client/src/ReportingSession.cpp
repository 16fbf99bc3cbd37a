#include "zunreporting/ReportingSession.h"

#include "Connection.h"
#include "MessageReader.h"
#include "MessageWriter.h"
#include "SessionDictionaries.h"
#include "zunreporting/ZunReporting.h"

namespace zunreporting {

namespace {

constexpr uint64_t kTransferTimeout = Connection::kTransferTimeout;
constexpr size_t kMostAtOnce = 1024;  // things to process before the caller has its turn

constexpr Member session(const char* name) {
  return {"com.vantix.zunreportingd.ClientSessionInterface", name};
}

}  // namespace

ReportingSession::ReportingSession(std::unique_ptr<Connection> connection)
    : connection_(std::move(connection)) {}

ReportingSession::~ReportingSession() = default;

Outcome<std::unique_ptr<ReportingSession>> ReportingSession::connect(const std::string& address) {
  using Connected = std::unique_ptr<ReportingSession>;
  auto connection = Connection::open(address);
  if (!connection) return failed<Connected>(connection.failure, std::move(connection.error));
  return {Connected(new ReportingSession(std::move(*connection.value))), {}};
}

Outcome<Nothing> ReportingSession::setSessionInfo(const SessionInfo& info,
                                                  const std::optional<UserInfo>& user,
                                                  AggregationHandler aggregation,
                                                  const std::vector<std::string>& frameworksToCheck) {
  aggregation_ = std::move(aggregation);
  const bool aggregates = aggregation_ != nullptr;
  // Before the call: messages may come ahead of its answer.
  if (connection_->exportClientObject(aggregates) < 0) {
    return failed<Nothing>(Failure::kConnection, "setSessionInfo: cannot take messages from the daemon");
  }
  return connection_->call(
      session("setSessionInfo"),
      [&](sd_bus_message* message) {
        int result = appendDictionary(message, dictionaryOf(info));
        if (result >= 0) result = appendOptionalDictionary(message, dictionaryOf(user));
        if (result >= 0) result = appendStrings(message, frameworksToCheck);
        if (result >= 0) result = sd_bus_message_append(message, "b", static_cast<int>(aggregates));
        return result;
      },
      nullptr);
}

Outcome<std::optional<std::vector<std::string>>> ReportingSession::startConfig() {
  return connection_->callFor<std::optional<std::vector<std::string>>>(
      session("startConfigWithCompletionHandler"), nullptr, readOptionalStrings, kTransferTimeout);
}

Outcome<std::optional<std::vector<std::string>>> ReportingSession::fetchStates(
    const std::optional<UserInfo>& user) {
  return connection_->callFor<std::optional<std::vector<std::string>>>(
      session("fetchStatesWithUserInfo"),
      [&](sd_bus_message* message) { return appendOptionalDictionary(message, dictionaryOf(user)); },
      readOptionalStrings);
}

Outcome<std::string> ReportingSession::fetchDisplayURL() {
  return connection_->callFor<std::string>(session("fetchDisplayURL"), nullptr, readString);
}

Outcome<std::optional<std::string>> ReportingSession::sendMessage(const Event& event) {
  const PropertyDictionary message = dictionaryOf(event);
  return connection_->callFor<std::optional<std::string>>(
      session("sendMessageWithDictionary"),
      [&](sd_bus_message* call) { return appendDictionary(call, message); }, readOptionalString);
}

Outcome<std::string> ReportingSession::sendMessageWithSessionInfo(const SessionInfo& info,
                                                                  const std::optional<UserInfo>& user,
                                                                  const Event& event) {
  return connection_->callFor<std::string>(
      session("sendMessageWithSessionInfo"),
      [&](sd_bus_message* message) {
        int result = appendDictionary(message, dictionaryOf(info));
        if (result >= 0) result = appendOptionalDictionary(message, dictionaryOf(user));
        if (result >= 0) result = sd_bus_message_append(message, "qq", event.category, event.type);
        if (result >= 0) result = appendOptionalDictionary(message, event.payload);
        return result;
      },
      readString, kTransferTimeout);
}

Outcome<std::optional<std::string>> ReportingSession::flushMessages() {
  std::optional<std::string> error;
  auto outcome = connection_->callFor<std::optional<std::string>>(
      session("flushMessagesWithCompletion"), nullptr,
      [&](sd_bus_message* answer, std::optional<std::string>& text) {
        const int result = readOptionalString(answer, text);
        return result < 0 ? result : readOptionalError(answer, error);
      },
      kTransferTimeout);
  if (outcome && error) return failed<std::optional<std::string>>(Failure::kAnswer, std::move(*error));
  return outcome;
}

Outcome<Nothing> ReportingSession::finishSessionGracefully() {
  return connection_->call(session("finishSessionGracefully"), nullptr, nullptr);
}

Outcome<bool> ReportingSession::uploadLogData(const PropertyArray& records) {
  std::optional<std::string> error;
  auto outcome = connection_->callFor<bool>(
      session("uploadLogData"), [&](sd_bus_message* message) { return appendArray(message, records); },
      [&](sd_bus_message* answer, bool& success) {
        const int result = readBoolean(answer, success);
        return result < 0 ? result : readOptionalError(answer, error);
      },
      Connection::kUploadTimeout);
  if (outcome && error) return failed<bool>(Failure::kAnswer, std::move(*error));
  return outcome;
}

Outcome<Nothing> ReportingSession::updateSharedData(const PropertyDictionary& entries) {
  return connection_->call(
      session("updateSharedDataWithDictionary"),
      [&](sd_bus_message* message) { return appendDictionary(message, entries); }, nullptr);
}

Outcome<Nothing> ReportingSession::updateSharedDataForKey(const std::string& key,
                                                          const std::optional<PropertyValue>& value) {
  return connection_->call(
      session("updateSharedDataForKey"),
      [&](sd_bus_message* message) {
        const int result = appendString(message, key);
        return result < 0 ? result : appendOptionalVariant(message, value);
      },
      nullptr);
}

Outcome<Nothing> ReportingSession::setDigestKey(std::string_view key, int32_t algorithm) {
  return connection_->call(
      session("setDigestKey"),
      [&](sd_bus_message* message) {
        const int result = appendData(message, key);
        return result < 0 ? result : sd_bus_message_append(message, "i", algorithm);
      },
      nullptr);
}

Outcome<size_t> ReportingSession::processMessages(std::optional<std::chrono::milliseconds> timeout) {
  using std::chrono::microseconds;
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  size_t handled = 0;
  size_t processed = 0;
  while (processed < kMostAtOnce) {
    std::optional<AggregatedMessage> message;
    const Connection::Step step = connection_->process(message);
    if (message) {
      ++handled;
      if (aggregation_) aggregation_(*message);
    }
    if (step == Connection::Step::kLost) {
      // What came before the end is told first, and the end by the next call.
      if (handled > 0) break;
      return failed<size_t>(Failure::kConnection, "the connection to the daemon is gone");
    }
    if (step == Connection::Step::kSomething) {
      ++processed;
      continue;
    }
    if (handled > 0) break;
    uint64_t left = UINT64_MAX;
    if (timeout) {
      const auto waited = std::chrono::duration_cast<microseconds>(Clock::now() - start);
      if (waited >= *timeout) break;
      left = static_cast<uint64_t>((microseconds(*timeout) - waited).count());
    }
    connection_->wait(left);
  }
  return {handled, {}};
}

int ReportingSession::descriptor() const {
  return connection_->descriptor();
}

const char* ZunReporting::version() {
  return ZUNREPORTING_VERSION;
}

}  // namespace zunreporting
