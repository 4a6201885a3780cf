#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <limits>

#include "backends/metrix/MetrixBackend.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* forward = "sendMessageWithMethod:respCode:dict:";

class MetrixBackendTest : public testing::Test {
 protected:
  FakeBundle::Class& installAdaptor() {
    platform.bundles->bundle = std::make_shared<FakeBundle>();
    FakeBundle::Class& type = platform.bundles->bundle->classes["MetrixAdaptor"];
    type.operations.insert(forward);
    return type;
  }
  static std::shared_ptr<MetrixBackend> make(std::int32_t clientType = 7) {
    return MetrixBackend::initWithName("metrix", &profile, shared({.compType = clientType}));
  }
  // As sessions do.
  static std::optional<std::string> send(CorvidBackend& backend, const Dictionary* payload) {
    return backend.sendMessage(payload, {1'700'000'000, 5}, 7, 2, MessageFlag{1});
  }
  std::vector<std::string> errors() { return platform.log.texts(LogLevel::error); }
  static std::string forwardingError(const std::string& adaptor) {
    return "MetrixBackend(sendMessage): Metrix adaptor " + adaptor +
           " does not respond to forwarding selector sendMessageWithMethod:respCode:dict:";
  }

  TestPlatform platform;
  static inline const Dictionary profile{{"active", true}};
};

TEST_F(MetrixBackendTest, TheConferencingClientTypesAreAllowedAndNoOthers) {
  constexpr auto lowest = std::numeric_limits<std::int32_t>::min();
  constexpr auto highest = std::numeric_limits<std::int32_t>::max();
  for (const std::int32_t type : {7, 11, 13}) EXPECT_TRUE(MetrixBackend::isClientTypeAllowed(type));
  for (const std::int32_t type :
       {0, 1, 6, 8, 9, 10, 12, 14, 15, 39, -1, -7, 7 + 32, 7 + 64, lowest, highest})
    EXPECT_FALSE(MetrixBackend::isClientTypeAllowed(type)) << type;
}

TEST_F(MetrixBackendTest, ARefusedClientTypeHasNoBackendAndALineSaysSo) {
  installAdaptor();
  for (const std::int32_t type : {8, 9, 10, 12, -7}) EXPECT_EQ(make(type), nullptr);
  EXPECT_EQ(errors().size(), 5u);
  EXPECT_EQ(errors().front(),
            "MetrixBackend(initWithName): No matching bundle found for client type 8");
  EXPECT_EQ(errors().back(),
            "MetrixBackend(initWithName): No matching bundle found for client type -7");
  EXPECT_EQ(platform.bundles->asked, 0);
}

TEST_F(MetrixBackendTest, WithoutAClientTypeThereIsNeverABackend) {
  installAdaptor();
  EXPECT_EQ(MetrixBackend::initWithName("metrix", &profile, shared()), nullptr);
  EXPECT_THAT(
      errors(),
      ElementsAre("MetrixBackend(initWithName): No matching bundle found for client type 0"));
}

TEST_F(MetrixBackendTest, LoadingIsLoggedBeforeTheClientTypeIsLookedAt) {
  make(8);
  make(11);
  EXPECT_THAT(
      platform.log.texts(LogLevel::info),
      ElementsAre("MetrixBackend(initWithName): Loading Metrix adaptor class for client type 8",
                  "MetrixBackend(initWithName): Loading Metrix adaptor class for client type 11"));
}

TEST_F(MetrixBackendTest, EachBackendHasAnAdaptorOfItsOwnAsLongAsItLives) {
  const FakeBundle::Class& type = installAdaptor();
  {
    const auto first = make(), second = make(13);
    EXPECT_EQ(type.created, 2);
    EXPECT_EQ(type.alive, 2);
  }
  EXPECT_EQ(type.alive, 0);
}

TEST_F(MetrixBackendTest, AnEventIsForwardedWithMethodResponseCodeAndPayload) {
  const FakeBundle::Class& type = installAdaptor();
  const auto backend = make();
  const Dictionary payload{{"formula", "a=b"}, {"count", 4}};
  EXPECT_EQ(send(*backend, &payload), std::nullopt);
  EXPECT_EQ(send(*backend, nullptr), std::nullopt);
  ASSERT_EQ(type.performed.size(), 2u);
  EXPECT_EQ(type.performed[0].operation, forward);
  EXPECT_EQ(type.performed[0].method, 7);
  EXPECT_EQ(type.performed[0].respCode, 2);
  EXPECT_EQ(type.performed[0].payload, payload);
  EXPECT_EQ(type.performed[1].payload, std::nullopt);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(MetrixBackendTest, AnAdaptorThatTakesItsTimeHoldsUpNobodyOfItsChain) {
  FakeBundle::Class& type = installAdaptor();
  const auto backend = make();
  std::future_status walk = std::future_status::timeout;
  std::future<void> walked;
  type.whilePerforming = [&] {
    walked = std::async(std::launch::async, [&] {
      backend->setCorrelatedSessionID("1-2");
      backend->setSamplingThreshold(backend->samplingThreshold());
      backend->hierarchy();
    });
    walk = walked.wait_for(std::chrono::seconds(20));
  };
  send(*backend, nullptr);
  EXPECT_EQ(walk, std::future_status::ready);
}

TEST_F(MetrixBackendTest, WithoutABundleEachEventIsOneErrorLine) {
  const auto backend = make();
  ASSERT_NE(backend, nullptr);
  const Dictionary payload{{"a", 1}};
  EXPECT_EQ(send(*backend, &payload), std::nullopt);
  EXPECT_EQ(send(*backend, &payload), std::nullopt);
  EXPECT_THAT(errors(), ElementsAre(forwardingError("(null)"), forwardingError("(null)")));
}

TEST_F(MetrixBackendTest, WithoutTheClassEachEventIsOneErrorLine) {
  platform.bundles->bundle = std::make_shared<FakeBundle>();
  const auto backend = make();
  EXPECT_EQ(send(*backend, nullptr), std::nullopt);
  EXPECT_THAT(errors(), ElementsAre(forwardingError("(null)")));
}

TEST_F(MetrixBackendTest, WhereNoAdaptorCouldBeMadeEachEventIsOneErrorLine) {
  installAdaptor().makes = false;
  const auto backend = make();
  EXPECT_EQ(send(*backend, nullptr), std::nullopt);
  EXPECT_THAT(errors(), ElementsAre(forwardingError("(null)")));
}

TEST_F(MetrixBackendTest, AnAdaptorWithoutTheOperationIsDescribedInOneErrorLineAnEvent) {
  FakeBundle::Class& type = installAdaptor();
  type.operations.clear();
  const auto backend = make();
  EXPECT_EQ(send(*backend, nullptr), std::nullopt);
  EXPECT_EQ(send(*backend, nullptr), std::nullopt);
  EXPECT_THAT(errors(),
              ElementsAre(forwardingError("<fake adaptor>"), forwardingError("<fake adaptor>")));
  EXPECT_THAT(type.performed, IsEmpty());
}

TEST_F(MetrixBackendTest, TheOperationIsLookedForAtEachEvent) {
  FakeBundle::Class& type = installAdaptor();
  type.operations.clear();
  const auto backend = make();
  send(*backend, nullptr);
  type.operations.insert(forward);
  send(*backend, nullptr);
  EXPECT_EQ(type.performed.size(), 1u);
}

TEST_F(MetrixBackendTest, AProfileThatIsNoDictionaryIsAsGoodAsAny) {
  const auto backend = MetrixBackend::initWithName("metrix", nullptr, shared({.compType = 7}));
  ASSERT_NE(backend, nullptr);
  EXPECT_EQ(backend->name(), "metrix");
  EXPECT_EQ(backend->identity().productFamily, std::nullopt);
}

TEST_F(MetrixBackendTest, TheRestIsTheBases) {
  installAdaptor();
  const auto backend = make();
  EXPECT_FALSE(backend->uploadFileAtPath("/tmp/file", "token"));
  EXPECT_FALSE(backend->uploadLogData({}));
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::sending);
}

}  // namespace
}  // namespace corvid
