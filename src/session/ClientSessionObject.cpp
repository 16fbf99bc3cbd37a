#include "session/ClientSessionObject.h"

#include <array>
#include <utility>

#include "session/WireOptional.h"

namespace zun {

namespace {

using Handler = void (*)(ClientSessionInterface& session, const Array& arguments, ServiceReply reply);

struct Operation {
  ServiceMember member;
  Handler handler;
};

Value wireString(const std::optional<std::string>& text) {
  return wireOptional(text ? Value(*text) : Value());
}

Value wireError(const std::optional<Error>& error) {
  if (!error) return wireOptional(Value());
  return wireOptional(Array{error->domain, error->code, error->description});
}

Value wireStrings(const std::optional<std::vector<std::string>>& strings) {
  if (!strings) return wireOptional(Value());
  Array array = Array::withCapacity(strings->size());
  for (const std::string& text : *strings) array.append(text);
  return wireOptional(std::move(array));
}

Value optionalArgument(const Value& argument) {
  const Array* const elements = argument.array();
  return elements == nullptr ? Value() : (*elements)[0];
}

Dictionary dictionaryArgument(const Value& argument) {
  const Dictionary* const dictionary = argument.dictionary();
  return dictionary == nullptr ? Dictionary() : *dictionary;
}

std::optional<Dictionary> optionalDictionaryArgument(const Value& argument) {
  const Value value = optionalArgument(argument);
  const Dictionary* const dictionary = value.dictionary();
  return dictionary == nullptr ? std::nullopt : std::optional(*dictionary);
}

uint16_t uint16Argument(const Value& argument) {
  return static_cast<uint16_t>(argument.intValue());
}

ClientSessionInterface::StatesReply statesReply(ServiceReply reply) {
  return [reply = std::move(reply)](const std::optional<std::vector<std::string>>& activeBackends) mutable {
    reply.send({wireStrings(activeBackends)});
  };
}

ClientSessionInterface::StringReply stringReply(ServiceReply reply) {
  return [reply = std::move(reply)](const std::string& text) mutable { reply.send({text}); };
}

/// False, and answered, where the client may not say that of itself.
bool mayClaim(ClientSessionInterface& session, const std::optional<Dictionary>& sessionInfo,
              const std::optional<Dictionary>& userInfo, ServiceReply& reply) {
  const auto refusal = session.refusalOfClaims(sessionInfo, userInfo);
  if (refusal) reply.sendError(ServiceReply::kAccessDenied, *refusal);
  return !refusal;
}

using Refusal = std::optional<ClientSessionInterface::Refusal>;

/// The answer of an operation that has none but its being done.
void answer(ServiceReply reply, const Refusal& refusal) {
  if (refusal) return reply.sendError(refusal->errorName, refusal->text);
  reply.send();
}

/// `operation` is called with a reply that a refusal of it is sent with.
template <typename OperationWithReply>
void answerRefusal(ServiceReply reply, OperationWithReply operation) {
  const auto shared = std::make_shared<ServiceReply>(std::move(reply));
  if (const Refusal refusal = operation(shared)) shared->sendError(refusal->errorName, refusal->text);
}

// The operations, in the interface's order.

void setSessionInfo(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  const Dictionary sessionInfo = dictionaryArgument(arguments[0]);
  const auto userInfo = optionalDictionaryArgument(arguments[1]);
  if (!mayClaim(session, sessionInfo, userInfo, reply)) return;
  const Value& frameworks = arguments[2];
  answer(std::move(reply),
         session.setSessionInfo(sessionInfo, userInfo, frameworks.isArray() ? *frameworks.array() : Array(),
                                arguments[3].boolValue()));
}

void startConfig(ClientSessionInterface& session, const Array&, ServiceReply reply) {
  if (!mayClaim(session, std::nullopt, std::nullopt, reply)) return;
  session.startConfigWithCompletionHandler(statesReply(std::move(reply)));
}

void fetchStates(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  const auto userInfo = optionalDictionaryArgument(arguments[0]);
  if (!mayClaim(session, std::nullopt, userInfo, reply)) return;
  answerRefusal(std::move(reply), [&](const std::shared_ptr<ServiceReply>& shared) {
    return session.fetchStatesWithUserInfo(
        userInfo, [shared](const std::optional<std::vector<std::string>>& activeBackends) {
          shared->send({wireStrings(activeBackends)});
        });
  });
}

void fetchDisplayURL(ClientSessionInterface& session, const Array&, ServiceReply reply) {
  session.fetchDisplayURL(stringReply(std::move(reply)));
}

void sendMessage(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  session.sendMessageWithDictionary(
      dictionaryArgument(arguments[0]),
      [reply = std::move(reply)](const std::optional<std::string>& response) mutable {
        if (!response) return reply.send({wireString(std::nullopt)});
        reply.send({wireString(response)}, {wireString(std::nullopt)});
      });
}

void flushMessages(ClientSessionInterface& session, const Array&, ServiceReply reply) {
  session.flushMessagesWithCompletion([reply = std::move(reply)](const std::optional<std::string>& result,
                                                                 const std::optional<Error>& error) mutable {
    reply.send({wireString(result), wireError(error)}, {wireString(std::nullopt), wireError(error)});
  });
}

void finishSession(ClientSessionInterface& session, const Array&, ServiceReply reply) {
  session.finishSessionGracefully();
  reply.send();
}

void uploadFile(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  session.uploadFileAtPath(std::string(arguments[0].stringValue()), std::string(arguments[1].dataValue()),
                           [reply = std::move(reply)](bool succeeded) mutable { reply.send({succeeded}); });
}

void uploadLogData(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  const Array* const logData = arguments[0].array();
  session.uploadLogData(
      logData == nullptr ? Array() : *logData,
      [reply = std::move(reply)](bool succeeded, const std::optional<Error>& error) mutable {
        reply.send({succeeded, wireError(error)});
      });
}

void sendMessageWithSessionInfo(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  const Dictionary sessionInfo = dictionaryArgument(arguments[0]);
  const auto userInfo = optionalDictionaryArgument(arguments[1]);
  if (!mayClaim(session, sessionInfo, userInfo, reply)) return;
  answerRefusal(std::move(reply), [&](const std::shared_ptr<ServiceReply>& shared) {
    return session.sendMessageWithSessionInfo(
        sessionInfo, userInfo, uint16Argument(arguments[2]), uint16Argument(arguments[3]),
        optionalDictionaryArgument(arguments[4]),
        [shared](const std::string& status) { shared->send({status}); });
  });
}

void updateSharedData(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  session.updateSharedDataWithDictionary(dictionaryArgument(arguments[0]));
  reply.send();
}

void updateSharedDataForKey(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  session.updateSharedDataForKey(std::string(arguments[0].stringValue()), optionalArgument(arguments[1]));
  reply.send();
}

void setDigestKey(ClientSessionInterface& session, const Array& arguments, ServiceReply reply) {
  answer(std::move(reply),
         session.setDigestKey(std::string(arguments[0].dataValue()), arguments[1].int32Value()));
}

// Their descriptions.

constexpr ServiceArgument kSetSessionInfoIn[] = {{"sessionInfo", "a{sv}"},
                                                 {"userInfo", "aa{sv}"},
                                                 {"frameworksToCheck", "as"},
                                                 {"hasAggregationBlock", "b"}};
constexpr ServiceArgument kActiveBackends[] = {{"activeBackends", "aas"}};
constexpr ServiceArgument kUserInfoIn[] = {{"userInfo", "aa{sv}"}};
constexpr ServiceArgument kDisplayURL[] = {{"displayURL", "s"}};
constexpr ServiceArgument kMessageIn[] = {{"message", "a{sv}"}};
constexpr ServiceArgument kResponse[] = {{"response", "as"}};
constexpr ServiceArgument kFlushOut[] = {{"result", "as"}, {"error", "a(sis)"}};
constexpr ServiceArgument kUploadFileIn[] = {{"fileURL", "s"}, {"extensionToken", "ay"}};
constexpr ServiceArgument kSuccess[] = {{"success", "b"}};
constexpr ServiceArgument kLogDataIn[] = {{"logData", "av"}};
constexpr ServiceArgument kLogDataOut[] = {{"success", "b"}, {"error", "a(sis)"}};
constexpr ServiceArgument kSendWithSessionInfoIn[] = {{"sessionInfo", "a{sv}"},
                                                      {"userInfo", "aa{sv}"},
                                                      {"category", "q"},
                                                      {"type", "q"},
                                                      {"payload", "aa{sv}"}};
constexpr ServiceArgument kStatus[] = {{"status", "s"}};
constexpr ServiceArgument kSharedDataIn[] = {{"sharedData", "a{sv}"}};
constexpr ServiceArgument kSharedDataForKeyIn[] = {{"key", "s"}, {"value", "av"}};
constexpr ServiceArgument kDigestKeyIn[] = {{"key", "ay"}, {"algorithm", "i"}};

constexpr Operation kOperations[] = {
    {{"setSessionInfo", kSetSessionInfoIn, {}}, setSessionInfo},
    {{"startConfigWithCompletionHandler", {}, kActiveBackends}, startConfig},
    {{"fetchStatesWithUserInfo", kUserInfoIn, kActiveBackends}, fetchStates},
    {{"fetchDisplayURL", {}, kDisplayURL}, fetchDisplayURL},
    {{"sendMessageWithDictionary", kMessageIn, kResponse}, sendMessage},
    {{"flushMessagesWithCompletion", {}, kFlushOut}, flushMessages},
    {{"finishSessionGracefully", {}, {}}, finishSession},
    {{"uploadFileAtPath", kUploadFileIn, kSuccess}, uploadFile},
    {{"uploadLogData", kLogDataIn, kLogDataOut}, uploadLogData},
    {{"sendMessageWithSessionInfo", kSendWithSessionInfoIn, kStatus}, sendMessageWithSessionInfo},
    {{"updateSharedDataWithDictionary", kSharedDataIn, {}}, updateSharedData},
    {{"updateSharedDataForKey", kSharedDataForKeyIn, {}}, updateSharedDataForKey},
    {{"setDigestKey", kDigestKeyIn, {}}, setDigestKey},
};
constexpr size_t kOperationCount = std::size(kOperations);

constexpr std::array<ServiceMember, kOperationCount> membersOfOperations() {
  std::array<ServiceMember, kOperationCount> members{};
  for (size_t i = 0; i < kOperationCount; ++i) members[i] = kOperations[i].member;
  return members;
}
constexpr std::array<ServiceMember, kOperationCount> kMembers = membersOfOperations();

/// Keeps the session alive as long as its connection can call it.
class ClientSessionObject final : public ExportedObject {
 public:
  explicit ClientSessionObject(std::shared_ptr<ReportingdSession> session) : session_(std::move(session)) {}

  void handleCall(size_t member, const Array& arguments, ServiceReply reply) override {
    if (member < kOperationCount) kOperations[member].handler(*session_, arguments, std::move(reply));
  }

 private:
  const std::shared_ptr<ReportingdSession> session_;
};

}  // namespace

const ServiceInterface& clientSessionInterface() {
  static constexpr ServiceInterface kInterface = {
      "/com/vantix/zunreportingd/session", "com.vantix.zunreportingd.ClientSessionInterface", kMembers};
  return kInterface;
}

std::shared_ptr<ExportedObject> makeClientSessionObject(std::shared_ptr<ReportingdSession> session) {
  return std::make_shared<ClientSessionObject>(std::move(session));
}

}  // namespace zun
