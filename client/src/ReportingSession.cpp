#include "zunreporting/ReportingSession.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <functional>

#include "MessageWriter.h"
#include "zunreporting/Keys.h"
#include "zunreporting/ZunReporting.h"

namespace zunreporting {

namespace {

constexpr const char* kPath = "/com/vantix/zunreportingd/session";
constexpr const char* kInterface = "com.vantix.zunreportingd.ClientSessionInterface";
constexpr uint64_t kCallTimeout = 60'000'000;       // microseconds
constexpr uint64_t kTransferTimeout = 180'000'000;  // for calls that wait for a server

struct BusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

std::string errorText(int result) {
  return std::strerror(-result);
}

PropertyDictionary dictionaryOf(const SessionInfo& info) {
  PropertyDictionary dictionary{
      {std::string(kZunReportingSessionInfoSessionID), info.sessionID},
      {std::string(kZunReportingSessionInfoClientType), info.clientType},
      {std::string(kZunReportingSessionInfoClientVersion), int32_t{info.clientVersion}},
      {std::string(kZunReportingSessionInfoBatchEvent), info.batchEvents},
  };
  if (info.requireUserInfo) {
    dictionary.emplace_back(kZunReportingSessionInfoRequireUserInfo, *info.requireUserInfo);
  }
  if (!info.hierarchyToken.empty()) {
    dictionary.emplace_back(
        kZunReportingSessionInfoHierarchyToken,
        PropertyDictionary{{std::string(kZunReportingHierarchyTokenTokenID), info.hierarchyToken},
                           {std::string(kZunReportingHierarchyTokenLevel), info.hierarchyLevel}});
  }
  return dictionary;
}

PropertyDictionary dictionaryOf(const UserInfo& user) {
  return {{std::string(kZunReportingUserInfoClientName), user.clientName},
          {std::string(kZunReportingUserInfoServiceName), user.serviceName}};
}

std::optional<PropertyDictionary> dictionaryOf(const std::optional<UserInfo>& user) {
  return user ? std::optional(dictionaryOf(*user)) : std::nullopt;
}

/// Reads an optional string: an array of zero or one.
int readOptionalString(sd_bus_message* message, std::optional<std::string>& text) {
  int result = sd_bus_message_enter_container(message, 'a', "s");
  if (result < 0) return result;
  const char* element = nullptr;
  result = sd_bus_message_read(message, "s", &element);
  if (result > 0) text = element;
  if (result >= 0) result = sd_bus_message_exit_container(message);
  return result;
}

/// Reads an optional array of strings.
int readOptionalStrings(sd_bus_message* message, std::optional<std::vector<std::string>>& texts) {
  int result = sd_bus_message_enter_container(message, 'a', "as");
  if (result < 0) return result;
  result = sd_bus_message_enter_container(message, 'a', "s");
  if (result > 0) {
    texts.emplace();
    const char* element = nullptr;
    while ((result = sd_bus_message_read(message, "s", &element)) > 0) texts->emplace_back(element);
    if (result >= 0) result = sd_bus_message_exit_container(message);
  }
  if (result >= 0) result = sd_bus_message_exit_container(message);
  return result;
}

/// Reads an optional error `(sis)` and gives its description.
int readOptionalError(sd_bus_message* message, std::optional<std::string>& description) {
  int result = sd_bus_message_enter_container(message, 'a', "(sis)");
  if (result < 0) return result;
  const char* domain = nullptr;
  const char* text = nullptr;
  int32_t code = 0;
  result = sd_bus_message_read(message, "(sis)", &domain, &code, &text);
  if (result > 0) description = std::string(text) + " (" + std::to_string(code) + ")";
  if (result >= 0) result = sd_bus_message_exit_container(message);
  return result;
}

}  // namespace

struct ReportingSession::Implementation {
  std::unique_ptr<sd_bus, BusUnref> bus;

  /// Calls `member` with what `write` appends; gives the answer or the error text.
  Outcome<Message> call(const char* member, const std::function<int(sd_bus_message*)>& write,
                        uint64_t timeout = kCallTimeout) {
    sd_bus_message* raw = nullptr;
    int result = sd_bus_message_new_method_call(bus.get(), &raw, nullptr, kPath, kInterface, member);
    if (result < 0) return {std::nullopt, errorText(result)};
    const Message request(raw);
    if (write) result = write(request.get());
    if (result < 0)
      return {std::nullopt, std::string(member) + ": cannot encode the arguments: " + errorText(result)};

    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* answer = nullptr;
    result = sd_bus_call(bus.get(), request.get(), timeout, &error, &answer);
    if (result < 0) {
      const std::string text = error.message != nullptr ? error.message : errorText(result);
      sd_bus_error_free(&error);
      return {std::nullopt, std::string(member) + ": " + text};
    }
    return {Message(answer), {}};
  }

  /// As `call`, then `read` takes the answer apart.
  template <typename T>
  Outcome<T> call(const char* member, const std::function<int(sd_bus_message*)>& write,
                  const std::function<int(sd_bus_message*, T&)>& read, uint64_t timeout) {
    auto answer = call(member, write, timeout);
    if (!answer) return {std::nullopt, std::move(answer.error)};
    T value{};
    const int result = read(answer.value->get(), value);
    if (result < 0) return {std::nullopt, std::string(member) + ": unexpected answer: " + errorText(result)};
    return {std::move(value), {}};
  }

  Outcome<Nothing> callWithoutResult(const char* member, const std::function<int(sd_bus_message*)>& write) {
    auto answer = call(member, write);
    if (!answer) return {std::nullopt, std::move(answer.error)};
    return {Nothing{}, {}};
  }
};

ReportingSession::ReportingSession(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

ReportingSession::~ReportingSession() = default;

Outcome<std::unique_ptr<ReportingSession>> ReportingSession::connect(const std::string& address) {
  auto implementation = std::make_unique<Implementation>();
  sd_bus* bus = nullptr;
  int result = sd_bus_new(&bus);
  if (result >= 0) {
    implementation->bus.reset(bus);
    result = sd_bus_set_address(bus, address.c_str());
  }
  if (result >= 0) result = sd_bus_start(bus);
  if (result < 0) return {std::nullopt, "cannot connect to " + address + ": " + errorText(result)};
  return {std::unique_ptr<ReportingSession>(new ReportingSession(std::move(implementation))), {}};
}

Outcome<Nothing> ReportingSession::setSessionInfo(const SessionInfo& info,
                                                  const std::optional<UserInfo>& user) {
  return implementation_->callWithoutResult("setSessionInfo", [&](sd_bus_message* message) {
    int result = appendDictionary(message, dictionaryOf(info));
    if (result >= 0) result = appendOptionalDictionary(message, dictionaryOf(user));
    if (result >= 0) result = sd_bus_message_append(message, "asb", 0, 0);
    return result;
  });
}

Outcome<std::optional<std::vector<std::string>>> ReportingSession::startConfig() {
  return implementation_->call<std::optional<std::vector<std::string>>>(
      "startConfigWithCompletionHandler", nullptr, readOptionalStrings, kTransferTimeout);
}

Outcome<std::optional<std::vector<std::string>>> ReportingSession::fetchStates(
    const std::optional<UserInfo>& user) {
  return implementation_->call<std::optional<std::vector<std::string>>>(
      "fetchStatesWithUserInfo",
      [&](sd_bus_message* message) { return appendOptionalDictionary(message, dictionaryOf(user)); },
      readOptionalStrings, kCallTimeout);
}

Outcome<std::string> ReportingSession::fetchDisplayURL() {
  return implementation_->call<std::string>(
      "fetchDisplayURL", nullptr,
      [](sd_bus_message* message, std::string& url) {
        const char* text = nullptr;
        const int result = sd_bus_message_read(message, "s", &text);
        if (result > 0) url = text;
        return result;
      },
      kCallTimeout);
}

Outcome<std::optional<std::string>> ReportingSession::sendMessage(const Event& event) {
  PropertyDictionary message{
      {std::string(kZunReportingMessageParametersCategory), int32_t{event.category}},
      {std::string(kZunReportingMessageParametersType), int32_t{event.type}},
      {std::string(kZunReportingMessageParametersFlag), event.flag},
  };
  if (event.payload) message.emplace_back(kZunReportingMessageParametersPayload, *event.payload);
  return implementation_->call<std::optional<std::string>>(
      "sendMessageWithDictionary", [&](sd_bus_message* call) { return appendDictionary(call, message); },
      readOptionalString, kCallTimeout);
}

Outcome<std::optional<std::string>> ReportingSession::flushMessages() {
  auto answer = implementation_->call("flushMessagesWithCompletion", nullptr, kTransferTimeout);
  if (!answer) return {std::nullopt, std::move(answer.error)};
  std::optional<std::string> text;
  std::optional<std::string> error;
  int result = readOptionalString(answer.value->get(), text);
  if (result >= 0) result = readOptionalError(answer.value->get(), error);
  if (result < 0)
    return {std::nullopt, "flushMessagesWithCompletion: unexpected answer: " + errorText(result)};
  if (error) return {std::nullopt, *error};
  return {std::move(text), {}};
}

Outcome<Nothing> ReportingSession::finishSessionGracefully() {
  return implementation_->callWithoutResult("finishSessionGracefully", nullptr);
}

const char* ZunReporting::version() {
  return ZUNREPORTING_VERSION;
}

}  // namespace zunreporting
