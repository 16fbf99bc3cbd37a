#pragma once

#include <string_view>

/// The key strings that client processes and the daemon agree on. Stable for ever.
namespace zunreporting {

inline constexpr std::string_view kZunReportingSessionInfoSessionID = "sessionInfoSessionID";
inline constexpr std::string_view kZunReportingSessionInfoClientType = "sessionInfoClientType";
inline constexpr std::string_view kZunReportingSessionInfoClientVersion = "sessionInfoClientVersion";
inline constexpr std::string_view kZunReportingSessionInfoHierarchyToken = "sessionInfoHierarchyToken";
inline constexpr std::string_view kZunReportingSessionInfoRequireUserInfo = "sessionInfoRequireUserInfo";
inline constexpr std::string_view kZunReportingSessionInfoBatchEvent = "sessionInfoBatchEvent";

inline constexpr std::string_view kZunReportingHierarchyTokenLevel = "hierarchyTokenLevel";
inline constexpr std::string_view kZunReportingHierarchyTokenTokenID = "hierarchyTokenTokenID";

inline constexpr std::string_view kZunReportingUserInfoClientName = "userInfoClientName";
inline constexpr std::string_view kZunReportingUserInfoServiceName = "userInfoServiceName";

inline constexpr std::string_view kZunReportingMessageParametersCategory = "messageParametersCategory";
inline constexpr std::string_view kZunReportingMessageParametersType = "messageParametersType";
inline constexpr std::string_view kZunReportingMessageParametersPayload = "messageParametersPayload";
inline constexpr std::string_view kZunReportingMessageParametersFlag = "messageParametersFlag";

inline constexpr std::string_view kZunReportingErrorDomain = "com.vantix.zunreporting.error";

// Backend names, as storebags list them. Every name that contains the HTTP post name
// is an HTTPS post backend, so no other name may contain it.
inline constexpr std::string_view kZunReportingBackendHTTPPost = "httpPost";
inline constexpr std::string_view kZunReportingBackendHTTPPost2 = "post2";
inline constexpr std::string_view kZunReportingBackendQRS = "qrs";
inline constexpr std::string_view kZunReportingBackendDashboard = "dashboard";
inline constexpr std::string_view kZunReportingBackendUploadServer = "uploadServer";
inline constexpr std::string_view kZunReportingBackendJoulex = "joulex";
inline constexpr std::string_view kZunReportingBackendKodo = "kodo";

// Message flag bits.
inline constexpr int kZunReportingFlagRealtime = 1;  // post at once, to the realtime URL
inline constexpr int kZunReportingFlagPromote = 2;   // enable a sampled-out backend

}  // namespace zunreporting
