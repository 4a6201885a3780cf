#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "backends/BackendSet.h"
#include "backends/https/HTTPSPostBackend.h"
#include "backends/metrix/MetrixBackend.h"
#include "backends/wattbook/WattbookBackend.h"
#include "platform/data/PropertyList.h"
#include "protocol/Keys.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

constexpr const char* udid = "0123456789abcdef0123456789abcdef01234567";

struct BackendSetTest : testing::Test {
  static Dictionary postProfile() { return {{"clients", Array{Dictionary{}}}}; }
  std::shared_ptr<CorvidBackend> make(const std::string& name, const Dictionary* profile,
                                      std::optional<std::string> family = "Robin") {
    return CorvidBackend::newBackendWithName(name, profile,
                                             shared({.compType = 5, .productFamily = family}));
  }
  std::vector<std::string> errors() const { return platform.log.texts(LogLevel::error); }

  TestPlatform platform;
  Dictionary sessionInfo{{"ClientType", 5},
                         {"ClientVersion", 70000},
                         {"SessionID", 4000000000},
                         {"RequireUserInfo", true},
                         {"BatchEvent", true}};
};

TEST_F(BackendSetTest, BothPostNamesMakeAPostBackendOfThatName) {
  const Dictionary profile = postProfile();
  for (const char* name : {"httpPost", "httpPost2"}) {
    const auto backend = make(name, &profile);
    ASSERT_TRUE(std::dynamic_pointer_cast<HTTPSPostBackend>(backend)) << name;
    EXPECT_EQ(backend->name(), name);
    EXPECT_EQ(backend->identity().productFamily, "Robin");
  }
}

TEST_F(BackendSetTest, TheMetrixBackendAloneIsToldTheClientType) {
  const Dictionary profile;
  const auto makeFor = [&](std::int32_t clientType) {
    return CorvidBackend::newBackendWithName("metrix", &profile, shared({.compType = clientType}));
  };
  EXPECT_TRUE(std::dynamic_pointer_cast<MetrixBackend>(makeFor(13)));
  EXPECT_EQ(makeFor(5), nullptr);
  EXPECT_EQ(errors(),
            std::vector<std::string>{
                "MetrixBackend(initWithName): No matching bundle found for client type 5"});
  EXPECT_TRUE(std::dynamic_pointer_cast<WattbookBackend>(make("wattbook", &profile)));
}

TEST_F(BackendSetTest, ALanaiDeviceKnowsNoMetrix) {
  const Dictionary profile;
  const auto makeOn = [&](std::optional<std::string> hardware) {
    return CorvidBackend::newBackendWithName(
        "metrix", &profile, shared({.compType = 7, .hardwareType = std::move(hardware)}));
  };
  EXPECT_EQ(makeOn("Lanai"), nullptr);
  EXPECT_EQ(errors(), std::vector<std::string>{"CorvidBackend(newBackendWithName): metrix"});
  for (const char* other : {"Lanai5,2", "lanai"}) EXPECT_NE(makeOn(other), nullptr) << other;
  EXPECT_NE(makeOn(std::nullopt), nullptr);
}

TEST_F(BackendSetTest, NamesAreComparedExactly) {
  const Dictionary profile = postProfile();
  EXPECT_EQ(make("HTTPPost", &profile), nullptr);
  EXPECT_EQ(make("", &profile), nullptr);
  EXPECT_EQ(errors(), (std::vector<std::string>{"CorvidBackend(newBackendWithName): HTTPPost",
                                                "CorvidBackend(newBackendWithName): "}));
}

TEST_F(BackendSetTest, ARefusedProfileYieldsNothingWithoutAFurtherLine) {
  EXPECT_EQ(make("httpPost", nullptr), nullptr);
  const Dictionary profile = postProfile();
  EXPECT_EQ(make("httpPost", &profile, std::nullopt), nullptr);
  EXPECT_EQ(errors(), std::vector<std::string>{});
  const Dictionary empty;
  EXPECT_EQ(make("httpPost", &empty), nullptr);
  EXPECT_EQ(errors(), std::vector<std::string>{
                          "HTTPSPostBackend(initWithName): can't find the client list."});
}

TEST_F(BackendSetTest, NeedsASection) {
  EXPECT_EQ(createBackends(nullptr, &sessionInfo, nullptr, udid), std::nullopt);
  EXPECT_EQ(errors(), std::vector<std::string>{
                          "createBackends: Attempted to create backends with nil storebag"});
}

TEST_F(BackendSetTest, NeedsASessionInfo) {
  const Dictionary section;
  EXPECT_EQ(createBackends(&section, nullptr, nullptr, udid), std::nullopt);
  EXPECT_EQ(errors(), std::vector<std::string>{
                          "createBackends: Attempted to create backends with nil session info"});
}

TEST_F(BackendSetTest, AnEmptySectionYieldsAnEmptySet) {
  const Dictionary section;
  const auto backends = createBackends(&section, &sessionInfo, nullptr, udid);
  ASSERT_TRUE(backends);
  EXPECT_TRUE(backends->empty());
  EXPECT_TRUE(errors().empty());
}

TEST_F(BackendSetTest, FillsEveryBackendWithSessionAndDevice) {
  platform.device->set("ReleaseType", "Internal");
  const Dictionary section{{"httpPost", postProfile()}, {"httpPost2", postProfile()}};
  const Dictionary userInfo{{"_clientName", "player"}};
  const auto backends = createBackends(&section, &sessionInfo, shared(userInfo), udid);
  ASSERT_TRUE(backends);
  ASSERT_EQ(backends->size(), 2u);
  for (const auto& [name, backend] : *backends) {
    EXPECT_EQ(backend->name(), name);
    EXPECT_EQ(backend->identity().sessionID, 4000000000u);
    EXPECT_EQ(backend->identity().compType, 5);
    EXPECT_EQ(backend->identity().clientVersion, 4464) << "70000 in 16 bits";
    EXPECT_EQ(backend->identity().udid, udid);
    EXPECT_EQ(backend->identity().productVersion, "12.3");
    EXPECT_EQ(backend->identity().buildVersion, "20F71");
    EXPECT_EQ(backend->identity().hardwareType, "Robin5,2") << "the product type";
    EXPECT_EQ(backend->identity().productFamily, "Robin") << "the device name";
    EXPECT_TRUE(backend->identity().isInternal);
    EXPECT_TRUE(backend->identity().requireUserInfo);
    EXPECT_TRUE(backend->identity().batchEvents);
    EXPECT_EQ(*backend->userInfoDict(), userInfo);
    EXPECT_EQ(backend->state(), BackendState::waiting);
    EXPECT_EQ(backend.use_count(), 1) << "the set alone holds its backends";
  }
}

TEST_F(BackendSetTest, AbsentSessionValuesReadAsZeroAndFalse) {
  const Dictionary section{{"httpPost", postProfile()}};
  const Dictionary empty;
  const auto backends = createBackends(&section, &empty, nullptr, udid);
  ASSERT_TRUE(backends);
  const auto& backend = backends->at("httpPost");
  EXPECT_EQ(backend->identity().sessionID, 0u);
  EXPECT_EQ(backend->identity().compType, 0);
  EXPECT_EQ(backend->identity().clientVersion, 0);
  EXPECT_FALSE(backend->identity().isInternal);
  EXPECT_FALSE(backend->identity().requireUserInfo);
  EXPECT_FALSE(backend->identity().batchEvents);
  EXPECT_EQ(backend->userInfoDict(), nullptr);
}

TEST_F(BackendSetTest, SessionValuesOfAnotherTypeReadAsZeroAndFalse) {
  const Dictionary section{{"httpPost", postProfile()}};
  for (const Value& wrong :
       {Value(), Value(Date{1}), Value(Data{"1"}), Value(Array{1}), Value(Dictionary{{"1", 1}})}) {
    Dictionary info;
    for (const auto& [key, value] : sessionInfo) info.set(key, wrong);
    const auto backends = createBackends(&section, &info, nullptr, udid);
    ASSERT_TRUE(backends);
    const auto& backend = backends->at("httpPost");
    EXPECT_EQ(backend->identity().sessionID, 0u);
    EXPECT_EQ(backend->identity().compType, 0);
    EXPECT_EQ(backend->identity().clientVersion, 0);
    EXPECT_FALSE(backend->identity().requireUserInfo);
    EXPECT_FALSE(backend->identity().batchEvents);
  }
}

TEST_F(BackendSetTest, SessionNumbersKeepTheirLowBits) {
  const Dictionary section{{"httpPost", postProfile()}};
  const auto made = [&](Value number) {
    const Dictionary info{{"SessionID", number}, {"ClientType", number}, {"ClientVersion", number}};
    return createBackends(&section, &info, nullptr, udid)->at("httpPost");
  };
  const auto negative = made(-1);
  EXPECT_EQ(negative->identity().sessionID, 4294967295u);
  EXPECT_EQ(negative->identity().compType, -1);
  EXPECT_EQ(negative->identity().clientVersion, 65535);
  const auto wide = made(std::int64_t{0x7'0001'0002});
  EXPECT_EQ(wide->identity().sessionID, 65538u);
  EXPECT_EQ(wide->identity().compType, 65538);
  EXPECT_EQ(wide->identity().clientVersion, 2);
  EXPECT_EQ(made(1e300)->identity().sessionID, 4294967295u);
  EXPECT_EQ(made(std::numeric_limits<double>::quiet_NaN())->identity().sessionID, 0u);
}

TEST_F(BackendSetTest, TheOwnVersionIsTheLibrarys) {
  platform.files->files[Paths("/nonexistent/root").infoFile] = {
      writeXMLPropertyList(Dictionary{{"BundleVersion", "300.1.9"}}), {}};
  const Dictionary profile{{"clients", Array{Dictionary{{"post_url", "https://events.test"}}}}};
  const Dictionary section{{"httpPost", profile}};
  const Dictionary info;
  const auto backends = createBackends(&section, &info, nullptr, udid);
  const auto& backend = backends->at("httpPost");
  backend->updateState();
  backend->sendMessage(nullptr, {}, 1, 2, MessageFlag{0});
  const auto requests = platform.http->requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(std::ranges::count(
      requests[0].headers,
      std::pair<std::string, std::string>("User-Agent", "Corvid/44.1 (Robin5,2; 12.3)")));
}

TEST_F(BackendSetTest, SkipsWhatCannotBeMadeAndMakesTheRest) {
  const Dictionary section{
      {"carrierPigeon", Dictionary{}}, {"httpPost2", Dictionary{}}, {"httpPost", postProfile()}};
  const auto backends = createBackends(&section, &sessionInfo, nullptr, udid);
  ASSERT_TRUE(backends);
  ASSERT_EQ(backends->size(), 1u);
  EXPECT_TRUE(backends->contains("httpPost"));
  EXPECT_EQ(errors(), (std::vector<std::string>{
                          "CorvidBackend(newBackendWithName): carrierPigeon",
                          "HTTPSPostBackend(initWithName): can't find the client list."}));
}

TEST_F(BackendSetTest, AProfileThatIsNoDictionaryIsAbsent) {
  const Dictionary section{{"httpPost", "text"}, {"carrierPigeon", 7}};
  const auto backends = createBackends(&section, &sessionInfo, nullptr, udid);
  ASSERT_TRUE(backends);
  EXPECT_TRUE(backends->empty());
  EXPECT_EQ(errors(), std::vector<std::string>{"CorvidBackend(newBackendWithName): carrierPigeon"});
}

TEST_F(BackendSetTest, WithoutADeviceNameThereIsNoPostBackend) {
  platform.device->remove("DeviceName");
  const Dictionary section{{"httpPost", postProfile()}};
  const auto backends = createBackends(&section, &sessionInfo, nullptr, udid);
  ASSERT_TRUE(backends);
  EXPECT_TRUE(backends->empty());
}

}  // namespace
}  // namespace corvid
