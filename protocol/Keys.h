// Keys and names that daemon and client library share. They cross the connection inside
// dictionaries; include/corvid/corvid.h publishes the same texts to C.
#pragma once

#include <string_view>

namespace corvid {

// Session info.
inline constexpr std::string_view kCorvidSessionInfoClientType = "ClientType";
inline constexpr std::string_view kCorvidSessionInfoClientVersion = "ClientVersion";
inline constexpr std::string_view kCorvidSessionInfoSessionID = "SessionID";
inline constexpr std::string_view kCorvidSessionInfoRequireUserInfo = "RequireUserInfo";
inline constexpr std::string_view kCorvidSessionInfoBatchEvent = "BatchEvent";

// User info.
inline constexpr std::string_view kCorvidUserInfoClientName = "_clientName";
inline constexpr std::string_view kCorvidUserInfoServiceName = "_serviceName";

// Message dictionary.
inline constexpr std::string_view kCorvidMessageParametersCategory = "Category";
inline constexpr std::string_view kCorvidMessageParametersType = "Type";
inline constexpr std::string_view kCorvidMessageParametersPayload = "Payload";
inline constexpr std::string_view kCorvidMessageParametersFlag = "Flag";

// Backend names, the keys of a storebag section and of a session's backend table.
inline constexpr std::string_view kCorvidBackendHTTPPost = "httpPost";
inline constexpr std::string_view kCorvidBackendHTTPPost2 = "httpPost2";
inline constexpr std::string_view kCorvidBackendDashboard = "dashboard";
inline constexpr std::string_view kCorvidBackendUploadServer = "uploadServer";
inline constexpr std::string_view kCorvidBackendMetrix = "metrix";
inline constexpr std::string_view kCorvidBackendWattbook = "wattbook";

inline constexpr std::string_view kCorvidErrorDomain = "com.halcyon.corvid.error";

// The service that clients connect to, below the run folder's "corvidd/".
inline constexpr std::string_view kCorvidServiceName = "com.halcyon.corvidd";

}  // namespace corvid
