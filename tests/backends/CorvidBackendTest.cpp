#include <gtest/gtest.h>

#include "backends/CorvidBackend.h"
#include "base/Text.h"
#include "platform/data/Crypto.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

// A backend that overrides nothing.
struct PlainBackend : CorvidBackend {
  explicit PlainBackend(Dictionary profile = {}) : CorvidBackend("plain", profile, shared()) {}
  const Dictionary& profile() const { return _profile; }
};

// A backend that keeps what it is asked to send.
struct RecordingBackend final : PlainBackend {
  struct Sent {
    const Dictionary* payload;
    TimeValue timestamp;
    int method;
    int respCode;
    EventID eventID;
    MessageFlag flag;
    bool operator==(const Sent&) const = default;
  };
  using CorvidBackend::sendMessage;
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         EventID eventID, MessageFlag flag) override {
    sent.push_back({payload, timestamp, method, respCode, eventID, flag});
    return "sent";
  }
  std::vector<Sent> sent;
};

struct CorvidBackendTest : testing::Test {
  TestPlatform platform;
};

TEST_F(CorvidBackendTest, StartsUnevaluatedAndEmpty) {
  const auto backend = std::make_shared<PlainBackend>(Dictionary{{"key", "value"}});
  EXPECT_EQ(backend->name(), "plain");
  EXPECT_EQ(backend->profile(), (Dictionary{{"key", "value"}}));
  EXPECT_EQ(backend->identity().productFamily, "Robin");
  EXPECT_EQ(backend->state(), BackendState::waiting);
  EXPECT_EQ(backend->combinedSessionIDString(), std::nullopt);
  EXPECT_EQ(backend->hierarchy(), 0);
  EXPECT_EQ(backend->displayURL(), std::nullopt);
  EXPECT_EQ(backend->userInfoDict(), nullptr);
  EXPECT_EQ(backend->samplingThreshold(), std::nullopt);
}

TEST_F(CorvidBackendTest, DrawsItsOwnSamplingFactorAtCreation) {
  platform.random->draw = 0.25;
  const auto first = std::make_shared<PlainBackend>();
  platform.random->draw = 0.75;
  const auto second = std::make_shared<PlainBackend>();
  EXPECT_EQ(first->samplingFactor(), 0.25);
  EXPECT_EQ(second->samplingFactor(), 0.75);
}

TEST_F(CorvidBackendTest, PropertiesHoldWhatIsSet) {
  const auto backend = std::make_shared<PlainBackend>();
  const auto userInfo = shared(Dictionary{{"a", 1}});
  backend->setState(BackendState::held);
  backend->setCombinedSessionIDString("A.B");
  backend->setHierarchy(-1);
  backend->setUserInfoDict(userInfo);
  backend->setSamplingThreshold(0.5);
  EXPECT_EQ(backend->state(), BackendState::held);
  EXPECT_EQ(backend->combinedSessionIDString(), "A.B");
  EXPECT_EQ(backend->hierarchy(), -1);
  EXPECT_EQ(backend->userInfoDict(), userInfo);
  EXPECT_EQ(backend->samplingThreshold(), 0.5);
}

TEST(BackendIdentityTest, VersionTextSplitsIntoTwoEightBitNumbers) {
  const auto split = [](std::string_view version) {
    BackendIdentity identity;
    identity.setSelfVersion(version);
    return std::pair<int, int>(identity.selfVersionMajor, identity.selfVersionMinor);
  };
  EXPECT_EQ(split("8.0"), std::pair(8, 0));
  EXPECT_EQ(split("12"), std::pair(12, 0));
  EXPECT_EQ(split("300.1"), std::pair(44, 1));
  EXPECT_EQ(split("1.2.3"), std::pair(1, 2));
  EXPECT_EQ(split("9.beta"), std::pair(9, 0));
  EXPECT_EQ(split("beta.7"), std::pair(0, 7));
  EXPECT_EQ(split(" 5.+6x"), std::pair(5, 6));
  EXPECT_EQ(split("-1"), std::pair(255, 0));
  EXPECT_EQ(split(""), std::pair(0, 0));
}

TEST(BackendIdentityTest, StartTimeIsSecondsWithFraction) {
  BackendIdentity identity;
  identity.setStartTimestamp({1700000000, 250000});
  EXPECT_EQ(identity.startTimeStamp, 1700000000.25);
}

TEST_F(CorvidBackendTest, UpdateStateEnables) {
  const auto backend = std::make_shared<PlainBackend>();
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::sending);
}

TEST_F(CorvidBackendTest, EventsAreNumberedFromOneAndHandedOnUnchanged) {
  const auto backend = std::make_shared<RecordingBackend>();
  const Dictionary payload{{"a", 1}};
  EXPECT_EQ(backend->sendMessage(&payload, {5, 6}, 65535, 2, MessageFlag{3}), "sent");
  EXPECT_EQ(backend->sendMessage(nullptr, {7, 8}, 0, 65535, MessageFlag{-1}), "sent");
  ASSERT_EQ(backend->sent.size(), 2u);
  EXPECT_EQ(backend->sent[0],
            (RecordingBackend::Sent{&payload, {5, 6}, 65535, 2, EventID{1}, MessageFlag{3}}));
  EXPECT_EQ(backend->sent[1],
            (RecordingBackend::Sent{nullptr, {7, 8}, 0, 65535, EventID{2}, MessageFlag{-1}}));
}

TEST_F(CorvidBackendTest, BackendsNumberTheirEventsIndependently) {
  const auto first = std::make_shared<RecordingBackend>();
  const auto second = std::make_shared<RecordingBackend>();
  first->sendMessage(nullptr, {}, 0, 0, MessageFlag{0});
  first->sendMessage(nullptr, {}, 0, 0, MessageFlag{0});
  second->sendMessage(nullptr, {}, 0, 0, MessageFlag{0});
  EXPECT_EQ(first->sent.back().eventID, EventID{2});
  EXPECT_EQ(second->sent.back().eventID, EventID{1});
}

TEST_F(CorvidBackendTest, TheEventNumberWrapsToZeroAfter65535) {
  const auto backend = std::make_shared<RecordingBackend>();
  for (int i = 0; i < 65536; ++i) backend->sendMessage(nullptr, {}, 0, 0, MessageFlag{0});
  EXPECT_EQ(backend->sent[65534].eventID, EventID{65535});
  EXPECT_EQ(backend->sent[65535].eventID, EventID{0});
}

TEST_F(CorvidBackendTest, BaseOperationsDoNothingAndSaySo) {
  const auto backend = std::make_shared<PlainBackend>();
  const Dictionary payload{{"a", 1}};
  EXPECT_EQ(backend->sendMessage(&payload, {}, 1, 2, MessageFlag{0}), std::nullopt);
  EXPECT_FALSE(backend->uploadFileAtPath("/tmp/x", "token"));
  EXPECT_FALSE(backend->uploadLogData(Array{"a"}));
  backend->cleanup();
  EXPECT_TRUE(platform.log.lines().empty());
  EXPECT_TRUE(platform.http->requests().empty());
}

TEST_F(CorvidBackendTest, BaseFlushAnswersAtOnceWithNeitherTextNorError) {
  const auto backend = std::make_shared<PlainBackend>();
  int calls = 0;
  const auto result = backend->flushMessagesWithCompletion(
      [&](std::optional<std::string> text, std::optional<CorvidError> error) {
        ++calls;
        EXPECT_EQ(text, std::nullopt);
        EXPECT_EQ(error, std::nullopt);
      });
  EXPECT_EQ(result, std::nullopt);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(backend->flushMessagesWithCompletion(nullptr), std::nullopt);
}

TEST_F(CorvidBackendTest, TheCorrelatedSessionIDBecomesTheCombinedOne) {
  const auto backend = std::make_shared<PlainBackend>();
  backend->setCorrelatedSessionID("X.Y");
  EXPECT_EQ(backend->combinedSessionIDString(), "X.Y");
}

TEST_F(CorvidBackendTest, DigestIsLowerCaseHexadecimal) {
  EXPECT_EQ(CorvidBackend::convertIntoSHA256("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(CorvidBackend::convertIntoSHA256(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(CorvidBackendTest, DigestCoversAsManyBytesAsTheTextHasCodeUnits) {
  // Two units of three bytes: the digest of the first two.
  EXPECT_EQ(CorvidBackend::convertIntoSHA256("\u00e91"),
            "4a99557e4033c3539de2eb65472017cad5f9557f7a0625a09f1c3f6e2ba69c4c");
  // A character outside the basic plane is two units of four bytes.
  EXPECT_EQ(CorvidBackend::convertIntoSHA256("\U0001F600"), hexadecimal(sha256("\xF0\x9F")));
  // Three bytes of one unit.
  EXPECT_EQ(CorvidBackend::convertIntoSHA256("\u20ac"), hexadecimal(sha256("\xE2")));
}

}  // namespace
}  // namespace corvid
