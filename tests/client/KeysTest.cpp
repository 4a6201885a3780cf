#include <corvid/corvid.h>
#include <gtest/gtest.h>

#include "protocol/Keys.h"
#include "tests/client/StaticKeys.h"

namespace {

// Both ends must use the same texts.
#define EXPECT_SAME(name) EXPECT_EQ(std::string_view(::name), corvid::name) << #name

TEST(Keys, OfTheLibraryAreThoseOfTheDaemon) {
  EXPECT_SAME(kCorvidSessionInfoClientType);
  EXPECT_SAME(kCorvidSessionInfoClientVersion);
  EXPECT_SAME(kCorvidSessionInfoSessionID);
  EXPECT_SAME(kCorvidSessionInfoRequireUserInfo);
  EXPECT_SAME(kCorvidSessionInfoBatchEvent);
  EXPECT_SAME(kCorvidUserInfoClientName);
  EXPECT_SAME(kCorvidUserInfoServiceName);
  EXPECT_SAME(kCorvidMessageParametersCategory);
  EXPECT_SAME(kCorvidMessageParametersType);
  EXPECT_SAME(kCorvidMessageParametersPayload);
  EXPECT_SAME(kCorvidMessageParametersFlag);
  EXPECT_SAME(kCorvidBackendHTTPPost);
  EXPECT_SAME(kCorvidBackendHTTPPost2);
  EXPECT_SAME(kCorvidBackendDashboard);
  EXPECT_SAME(kCorvidBackendUploadServer);
  EXPECT_SAME(kCorvidBackendMetrix);
  EXPECT_SAME(kCorvidBackendWattbook);
  EXPECT_SAME(kCorvidErrorDomain);
}

TEST(Keys, StandInTablesThatTheCompilerFills) {
  constexpr std::string_view inCPlusPlus[] = {CORVID_KEY_CLIENT_TYPE, CORVID_BACKEND_HTTP_POST};
  static_assert(inCPlusPlus[0] == corvid::kCorvidSessionInfoClientType);
  EXPECT_EQ(static_key_count, 18u);
  for (std::size_t i = 0; i < static_key_count; ++i)
    EXPECT_STREQ(static_keys[i].literal, *static_keys[i].pointer) << i;
}

TEST(Keys, HaveTheTextsThatClientsRelyOn) {
  EXPECT_STREQ(kCorvidSessionInfoClientType, "ClientType");
  EXPECT_STREQ(kCorvidSessionInfoClientVersion, "ClientVersion");
  EXPECT_STREQ(kCorvidSessionInfoSessionID, "SessionID");
  EXPECT_STREQ(kCorvidSessionInfoRequireUserInfo, "RequireUserInfo");
  EXPECT_STREQ(kCorvidSessionInfoBatchEvent, "BatchEvent");
  EXPECT_STREQ(kCorvidUserInfoClientName, "_clientName");
  EXPECT_STREQ(kCorvidUserInfoServiceName, "_serviceName");
  EXPECT_STREQ(kCorvidMessageParametersCategory, "Category");
  EXPECT_STREQ(kCorvidMessageParametersType, "Type");
  EXPECT_STREQ(kCorvidMessageParametersPayload, "Payload");
  EXPECT_STREQ(kCorvidMessageParametersFlag, "Flag");
  EXPECT_STREQ(kCorvidBackendHTTPPost, "httpPost");
  EXPECT_STREQ(kCorvidBackendHTTPPost2, "httpPost2");
  EXPECT_STREQ(kCorvidBackendDashboard, "dashboard");
  EXPECT_STREQ(kCorvidBackendUploadServer, "uploadServer");
  EXPECT_STREQ(kCorvidBackendMetrix, "metrix");
  EXPECT_STREQ(kCorvidBackendWattbook, "wattbook");
  EXPECT_STREQ(kCorvidErrorDomain, "com.halcyon.corvid.error");
}

TEST(Library, NamesItsVersionAndItsErrors) {
  EXPECT_STREQ(corvid_version(), "0.1.0");
  EXPECT_STREQ(corvid_error_text(CORVID_ERROR_QUEUE_FULL), "queue full");
  EXPECT_STREQ(corvid_error_text(CORVID_ERROR_CONNECTION_LOST), "connection lost");
  EXPECT_STREQ(corvid_error_text(4711), "unknown error");
}

}  // namespace
