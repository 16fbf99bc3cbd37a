#include "storebag/ClientTypes.h"

#include "zunreporting/Keys.h"

namespace zun {

namespace {

struct ClientType {
  std::optional<std::string_view> storebagName;
  const char* senderCode;
};

constexpr std::array<ClientType, kClientTypeCount> kClientTypes{{
    {std::nullopt, "XA"},       // 0
    {std::nullopt, "DU"},       // 1
    {std::nullopt, "JOP"},      // 2
    {std::nullopt, "WE"},       // 3
    {std::nullopt, "KI"},       // 4
    {"tessel", "BO"},           // 5
    {"flumina", "FE"},          // 6
    {"confero", "KF"},          // 7
    {"telvane", "ZO"},          // 8
    {"sonoriva", "PU"},         // 9
    {"hintwell", "HA"},         // 10
    {"confero", "NY"},          // 11
    {"quorlytics", "ULVO"},     // 12
    {"confero", "TOPIR"},       // 13
    {"flumina", "FE-WUN"},      // 14
    {"flumina", "FE-DOLMY"},    // 15
    {"scribnet", "SCRIBNET"},   // 16
    {"reelhall", "MOSKET"},     // 17
    {"parcelkit", "TREVANIC"},  // 18
    {"sonabase", "LO"},         // 19
    {"confero", "RIV"},         // 20
    {"dunmore", "GU"},          // 21
    {"foresayer", "TE"},        // 22
    {"cirrone", "VA"},          // 23
    {"pennant", "NESK"},        // 24
    {"vaultry", "PODD"},        // 25
}};

constexpr std::array<const char*, kClientTypeCount> codesOf(
    const std::array<ClientType, kClientTypeCount>& types) {
  std::array<const char*, kClientTypeCount> codes{};
  for (size_t type = 0; type < types.size(); ++type) codes[type] = types[type].senderCode;
  return codes;
}

constexpr auto kSenderCodes = codesOf(kClientTypes);

}  // namespace

int32_t clientTypeOfSessionInfo(const Dictionary& sessionInfo) {
  return sessionInfo[zunreporting::kZunReportingSessionInfoClientType].nearestInt32Value();
}

std::optional<std::string_view> storebagNameForClientType(int32_t clientType) {
  if (clientType < 0 || clientType >= kClientTypeCount) return std::nullopt;
  return kClientTypes[static_cast<size_t>(clientType)].storebagName;
}

const std::array<const char*, kClientTypeCount>& senderCodes() {
  return kSenderCodes;
}

}  // namespace zun
