/* Keys in tables that the compiler fills. */
#include "tests/client/StaticKeys.h"

const struct static_key static_keys[] = {
    {CORVID_KEY_CLIENT_TYPE, &kCorvidSessionInfoClientType},
    {CORVID_KEY_CLIENT_VERSION, &kCorvidSessionInfoClientVersion},
    {CORVID_KEY_SESSION_ID, &kCorvidSessionInfoSessionID},
    {CORVID_KEY_REQUIRE_USER_INFO, &kCorvidSessionInfoRequireUserInfo},
    {CORVID_KEY_BATCH_EVENT, &kCorvidSessionInfoBatchEvent},
    {CORVID_KEY_CLIENT_NAME, &kCorvidUserInfoClientName},
    {CORVID_KEY_SERVICE_NAME, &kCorvidUserInfoServiceName},
    {CORVID_KEY_CATEGORY, &kCorvidMessageParametersCategory},
    {CORVID_KEY_TYPE, &kCorvidMessageParametersType},
    {CORVID_KEY_PAYLOAD, &kCorvidMessageParametersPayload},
    {CORVID_KEY_FLAG, &kCorvidMessageParametersFlag},
    {CORVID_BACKEND_HTTP_POST, &kCorvidBackendHTTPPost},
    {CORVID_BACKEND_HTTP_POST_2, &kCorvidBackendHTTPPost2},
    {CORVID_BACKEND_DASHBOARD, &kCorvidBackendDashboard},
    {CORVID_BACKEND_UPLOAD_SERVER, &kCorvidBackendUploadServer},
    {CORVID_BACKEND_METRIX, &kCorvidBackendMetrix},
    {CORVID_BACKEND_WATTBOOK, &kCorvidBackendWattbook},
    {CORVID_DAEMON_ERROR_DOMAIN, &kCorvidErrorDomain},
};
const size_t static_key_count = sizeof static_keys / sizeof *static_keys;
