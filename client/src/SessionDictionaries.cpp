#include "SessionDictionaries.h"

#include "zunreporting/Keys.h"

namespace zunreporting {

PropertyDictionary dictionaryOf(const SessionInfo& info) {
  PropertyDictionary dictionary{
      {std::string(kZunReportingSessionInfoSessionID), info.sessionID},
      {std::string(kZunReportingSessionInfoClientType), info.clientType},
      {std::string(kZunReportingSessionInfoClientVersion), int32_t{info.clientVersion}},
      {std::string(kZunReportingSessionInfoRequireUserInfo), info.requireUserInfo},
      {std::string(kZunReportingSessionInfoBatchEvent), info.batchEvents},
  };
  if (!info.hierarchyToken.empty()) {
    dictionary.emplace_back(
        kZunReportingSessionInfoHierarchyToken,
        PropertyDictionary{{std::string(kZunReportingHierarchyTokenTokenID), info.hierarchyToken},
                           {std::string(kZunReportingHierarchyTokenLevel), info.hierarchyLevel}});
  }
  return dictionary;
}

std::optional<PropertyDictionary> dictionaryOf(const std::optional<UserInfo>& user) {
  if (!user) return std::nullopt;
  return PropertyDictionary{{std::string(kZunReportingUserInfoClientName), user->clientName},
                            {std::string(kZunReportingUserInfoServiceName), user->serviceName}};
}

PropertyDictionary dictionaryOf(const Event& event) {
  PropertyDictionary message{
      {std::string(kZunReportingMessageParametersCategory), int32_t{event.category}},
      {std::string(kZunReportingMessageParametersType), int32_t{event.type}},
      {std::string(kZunReportingMessageParametersFlag), event.flag},
  };
  if (event.payload) message.emplace_back(kZunReportingMessageParametersPayload, *event.payload);
  return message;
}

}  // namespace zunreporting
