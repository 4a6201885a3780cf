// The key constants for C.
#include "protocol/Keys.h"

#include "client/include/corvid/corvid.h"

#define CORVID_KEY(name) const char* const name = corvid::name.data()

CORVID_KEY(kCorvidSessionInfoClientType);
CORVID_KEY(kCorvidSessionInfoClientVersion);
CORVID_KEY(kCorvidSessionInfoSessionID);
CORVID_KEY(kCorvidSessionInfoRequireUserInfo);
CORVID_KEY(kCorvidSessionInfoBatchEvent);
CORVID_KEY(kCorvidUserInfoClientName);
CORVID_KEY(kCorvidUserInfoServiceName);
CORVID_KEY(kCorvidMessageParametersCategory);
CORVID_KEY(kCorvidMessageParametersType);
CORVID_KEY(kCorvidMessageParametersPayload);
CORVID_KEY(kCorvidMessageParametersFlag);
CORVID_KEY(kCorvidBackendHTTPPost);
CORVID_KEY(kCorvidBackendHTTPPost2);
CORVID_KEY(kCorvidBackendDashboard);
CORVID_KEY(kCorvidBackendUploadServer);
CORVID_KEY(kCorvidBackendMetrix);
CORVID_KEY(kCorvidBackendWattbook);
CORVID_KEY(kCorvidErrorDomain);
