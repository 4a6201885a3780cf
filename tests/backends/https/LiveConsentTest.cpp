// Consent that is withdrawn while a session goes on.
#include <gmock/gmock.h>

#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

using testing::ElementsAre;

class LiveConsentTest : public PostBackendFixture {
 protected:
  void askAnew(bool isLive = true) {
    Deployment deployment;
    deployment.consentIsLive = isLive;
    platform.restart(Paths{"/nonexistent/root"}, deployment);
  }
  std::vector<std::string> warnings() const {
    return linesOf("HTTPSPostBackend(", LogLevel::warning);
  }
};

TEST_F(LiveConsentTest, WhatWaitsIsDroppedAndCountedWhenConsentIsGone) {
  askAnew();
  sessionInfo.set("BatchEvent", true);
  const auto backend = makeFor(openEntry());
  for (int i = 0; i < 3; ++i) send(*backend, {{"x", i}});
  platform.consent->allowed = false;
  std::optional<CorvidError> error;
  backend->flushMessagesWithCompletion(
      [&](std::optional<std::string>, std::optional<CorvidError> given) { error = given; });
  EXPECT_TRUE(requests().empty());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedDescription, "Consent was withdrawn");
  EXPECT_THAT(warnings(),
              ElementsAre("HTTPSPostBackend(mayLeave): httpPost: consent was withdrawn; 3 events "
                          "are dropped, and those that follow"));
}

TEST_F(LiveConsentTest, NothingMoreLeavesAndTheEndTellsHowMuchWasDropped) {
  askAnew();
  const auto backend = makeFor(openEntry());
  send(*backend, {{"x", 1}});
  platform.consent->allowed = false;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(send(*backend, {{"x", 2}}), std::nullopt);
  EXPECT_EQ(requests().size(), 1u);
  EXPECT_EQ(warnings().size(), 1u);
  backend->cleanup();
  ASSERT_EQ(warnings().size(), 2u);
  EXPECT_EQ(warnings()[1],
            "HTTPSPostBackend(cleanup): httpPost: 5 events were dropped because consent was "
            "withdrawn");
}

TEST_F(LiveConsentTest, WhatWaitsForAConnectionDoesNotLeaveEither) {
  askAnew();
  const auto backend = makeFor(openEntry());
  send(*backend, {{"x", 1}});
  ASSERT_EQ(requests().size(), 1u);
  ASSERT_TRUE(requests()[0].mayLeave);
  EXPECT_TRUE(requests()[0].mayLeave());
  platform.consent->allowed = false;
  EXPECT_FALSE(requests()[0].mayLeave());
}

TEST_F(LiveConsentTest, ConsentThatIsBackLetsEventsThroughAgain) {
  askAnew();
  const auto backend = makeFor(openEntry());
  platform.consent->allowed = false;
  send(*backend, {{"x", 1}});
  platform.consent->allowed = true;
  send(*backend, {{"x", 2}});
  EXPECT_EQ(posted("x"), std::vector<std::string>{"2"});
}

TEST_F(LiveConsentTest, AnEntryThatOverridesConsentIsNotAsked) {
  askAnew();
  const auto backend = makeFor(openEntryWith("override_dnu", 1));
  platform.consent->allowed = false;
  send(*backend, {{"x", 1}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_FALSE(requests()[0].mayLeave);
}

TEST_F(LiveConsentTest, WithoutTheSettingConsentHoldsAsAtTheStart) {
  askAnew(false);
  const auto backend = makeFor(openEntry());
  platform.consent->allowed = false;
  send(*backend, {{"x", 1}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_FALSE(requests()[0].mayLeave);
  EXPECT_TRUE(warnings().empty());
}

}  // namespace
}  // namespace corvid
