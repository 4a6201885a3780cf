"""Names that the daemon and its clients agree on, as in corvid.h.

Most are behind a parameter or a field; they are for what those do not cover.
"""

from typing import Final

# Of the session info.
CLIENT_TYPE: Final = "ClientType"
CLIENT_VERSION: Final = "ClientVersion"
SESSION_ID: Final = "SessionID"
REQUIRE_USER_INFO: Final = "RequireUserInfo"
BATCH_EVENT: Final = "BatchEvent"
# Of the user info.
CLIENT_NAME: Final = "_clientName"
SERVICE_NAME: Final = "_serviceName"
# Of a message.
CATEGORY: Final = "Category"
TYPE: Final = "Type"
PAYLOAD: Final = "Payload"
FLAG: Final = "Flag"
# Backends.
HTTP_POST: Final = "httpPost"
HTTP_POST_2: Final = "httpPost2"
DASHBOARD: Final = "dashboard"
UPLOAD_SERVER: Final = "uploadServer"
METRIX: Final = "metrix"
WATTBOOK: Final = "wattbook"
# Of the daemon's own failures.
DAEMON_ERROR_DOMAIN: Final = "com.halcyon.corvid.error"
