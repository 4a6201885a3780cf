#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/ActingUser.h"
#include "platform/Compressor.h"
#include "platform/ExtensionTokens.h"
#include "protocol/Limits.h"
#include "tests/fakes/FakeGrantedFile.h"
#include "tests/fakes/FakeServices.h"

namespace corvid {
namespace {

class ExtensionTokensTest : public testing::Test {
 protected:
  bool grants(const std::string& token) { return tokens.consume(token).attributes().isRegularFile; }

  ExtensionTokens tokens{std::make_shared<FakeRandom>(), limits::uploadBytesUnderWay};
  const std::shared_ptr<FakeGrantedFile> file = std::make_shared<FakeGrantedFile>("content");
};

TEST_F(ExtensionTokensTest, AHandleReadsAndRemovesWhatWasGranted) {
  const ExtensionTokens::Grant grant(tokens, file);
  const auto handle = tokens.consume(grant.token());
  EXPECT_TRUE(handle.attributes().isRegularFile);
  EXPECT_EQ(handle.attributes().size, 7u);
  EXPECT_EQ(handle.read(0, 4), "cont");
  EXPECT_EQ(file->removals, 0);
  handle.remove();
  EXPECT_EQ(file->removals, 1);
}

TEST_F(ExtensionTokensTest, ATokenThatNobodyGrantedStandsForNothing) {
  const ExtensionTokens::Grant grant(tokens, file);
  for (const std::string& forged : {std::string(), std::string("token"), grant.token() + "0",
                                    std::string(grant.token().size(), '0')}) {
    const auto handle = tokens.consume(forged);
    EXPECT_FALSE(handle.attributes().isRegularFile);
    EXPECT_EQ(handle.attributes().size, 0u);
    EXPECT_EQ(handle.read(0, 100), std::nullopt);
    handle.remove();
  }
  EXPECT_EQ(file->removals, 0);
  EXPECT_TRUE(file->reads.empty());
}

TEST_F(ExtensionTokensTest, ATokenIsWorthNothingAfterItsGrant) {
  std::optional<ExtensionTokens::Grant> grant(std::in_place, tokens, file);
  const std::string token = grant->token();
  EXPECT_TRUE(grants(token));
  EXPECT_TRUE(grants(token));  // several backends may ask
  grant.reset();
  EXPECT_FALSE(grants(token));
  EXPECT_EQ(tokens.usage().grants, 0u);
}

TEST_F(ExtensionTokensTest, ATokenIsWorthNothingOnAnotherThread) {
  const ExtensionTokens::Grant grant(tokens, file);
  bool granted = true;
  std::thread([&] { granted = grants(grant.token()); }).join();
  EXPECT_FALSE(granted);
  EXPECT_TRUE(grants(grant.token()));
}

TEST_F(ExtensionTokensTest, EachGrantHasATokenOfItsOwn) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const ExtensionTokens::Grant grant(tokens, file);
    EXPECT_EQ(grant.token().size(), 32u);
    seen.insert(grant.token());
  }
  EXPECT_EQ(seen.size(), 100u);
}

TEST_F(ExtensionTokensTest, HandlesAreCountedUntilTheyAreReleased) {
  const ExtensionTokens::Grant grant(tokens, file);
  {
    const auto first = tokens.consume(grant.token());
    const auto second = tokens.consume("forged");
    EXPECT_EQ(tokens.usage().handles, 2u);
  }
  try {
    const auto handle = tokens.consume(grant.token());
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(tokens.usage().handles, 0u);
  EXPECT_EQ(tokens.usage().consumed, 3u);
}

// Of a limit of 1,200 bytes.
class ClaimsTest : public testing::Test {
 protected:
  ExtensionTokens::Handle handleOf(std::uint32_t user) {
    const ActingFor acting(user);
    return tokens.consume("");
  }

  ExtensionTokens tokens{std::make_shared<FakeRandom>(), 1200};
};

TEST_F(ClaimsTest, TheHandlesOfOneUserClaimTwoThirdsOfTheLimitTogether) {
  {
    auto first = handleOf(1);
    auto second = handleOf(1);
    EXPECT_TRUE(first.claim(700));
    EXPECT_FALSE(second.claim(101));
    EXPECT_TRUE(second.claim(100));
    EXPECT_FALSE(second.claim(std::numeric_limits<std::size_t>::max()));
    EXPECT_EQ(tokens.usage().claimed, 800u);
    EXPECT_TRUE(first.claim(5));  // in place of the first claim
    EXPECT_EQ(tokens.usage().claimed, 105u);
  }
  EXPECT_EQ(tokens.usage().claimed, 0u);
}

TEST_F(ClaimsTest, WhateverAUserClaimsOthersFindRoom) {
  auto greedy = handleOf(1);
  ASSERT_TRUE(greedy.claim(800));
  auto other = handleOf(2);
  EXPECT_TRUE(other.claim(260));
  EXPECT_FALSE(other.claim(270)) << "of which not half would be left over";
  auto third = handleOf(3);
  EXPECT_TRUE(third.claim(90));
}

TEST_F(ClaimsTest, AClaimThatIsLetGoIsItsUsersAgain) {
  {
    auto first = handleOf(1);
    ASSERT_TRUE(first.claim(800));
    auto second = handleOf(1);
    EXPECT_FALSE(second.claim(1));
  }
  EXPECT_TRUE(handleOf(1).claim(800));
}

TEST_F(ClaimsTest, LessCanAlwaysBeClaimed) {
  auto first = handleOf(1);
  ASSERT_TRUE(first.claim(700));
  auto other = handleOf(2);
  ASSERT_TRUE(other.claim(300));
  EXPECT_TRUE(first.claim(650));
}

// What the daemon's own limit has to allow.
TEST(UploadClaims, TwoLargestUploadsOfOneUserFitAndLeaveRoomForAnothers) {
  ExtensionTokens tokens(std::make_shared<FakeRandom>(), limits::uploadBytesUnderWay);
  const std::size_t one = Compressor::mostBytesFor(limits::uploadBytes);
  const ActingFor acting(1);
  auto first = tokens.consume("");
  auto second = tokens.consume("");
  auto third = tokens.consume("");
  EXPECT_TRUE(first.claim(one));
  EXPECT_TRUE(second.claim(one));
  EXPECT_FALSE(third.claim(one));
  const ActingFor anotherActing(2);
  auto others = tokens.consume("");
  EXPECT_TRUE(others.claim(one));
}

TEST_F(ExtensionTokensTest, TheFileIsLetGoWithGrantAndHandle) {
  {
    std::optional<ExtensionTokens::Grant> grant(std::in_place, tokens, file);
    const auto handle = tokens.consume(grant->token());
    grant.reset();
    EXPECT_EQ(handle.read(0, 7), "content");
  }
  EXPECT_EQ(file.use_count(), 1);
}

}  // namespace
}  // namespace corvid
