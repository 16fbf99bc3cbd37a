#include "session/ClientSessionReplyInterface.h"

#include "session/WireOptional.h"

namespace zun {

namespace {

constexpr ServiceArgument kSendMessageToClientIn[] = {
    {"sessionInfo", "aa{sv}"}, {"timestamp", "d"}, {"category", "q"}, {"type", "q"}, {"payload", "aa{sv}"}};
constexpr size_t kSendMessageToClient = 0;

Value wireDictionary(const std::optional<Dictionary>& dictionary) {
  return wireOptional(dictionary ? Value(*dictionary) : Value());
}

}  // namespace

const ServiceInterface& clientSessionReplyInterface() {
  static constexpr ServiceMember kMembers[] = {{"sendMessageToClient", kSendMessageToClientIn, {}}};
  static constexpr ServiceInterface kInterface = {
      "/com/vantix/zunreportingd/client", "com.vantix.zunreportingd.ClientSessionReplyInterface", kMembers};
  return kInterface;
}

MessageToClient encodeMessageToClient(const ServiceConnection& connection,
                                      const std::optional<Dictionary>& sessionInfo, double timestamp,
                                      uint16_t category, uint16_t type,
                                      const std::optional<Dictionary>& payload) {
  return connection.encodeCall(kSendMessageToClient, Array{wireDictionary(sessionInfo), timestamp, category,
                                                           type, wireDictionary(payload)});
}

}  // namespace zun
