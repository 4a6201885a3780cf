#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "protocol/Limits.h"
#include "rpc/IPCListener.h"
#include "tests/fakes/CapturedLog.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* tooMany =
    "IPCListener: Process 4711, user 1000 opened more than 512 connections; closing it";
constexpr const char* tooManyOfUser =
    "IPCListener: Process 4711, user 1000 opened more than 256 connections of one user; closing it";

TEST(Admission, TheLastConnectionOfAllIsTaken) {
  const CapturedLog log;
  EXPECT_TRUE(admitsConnection(4711, 1000, 0, 0));
  EXPECT_TRUE(admitsConnection(4711, 1000, 511, 0));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Admission, OneMoreThanAllIsRefusedWhoeverItIs) {
  const CapturedLog log;
  EXPECT_FALSE(admitsConnection(4711, 1000, 512, 0));
  EXPECT_FALSE(admitsConnection(4711, 1000, 513, 255));
  EXPECT_THAT(log.texts(LogLevel::warning), ElementsAre(tooMany, tooMany));
}

TEST(Admission, TheLastConnectionOfAUserIsTaken) {
  const CapturedLog log;
  EXPECT_TRUE(admitsConnection(4711, 1000, 255, 255));
  EXPECT_TRUE(admitsConnection(4711, 1000, 256, 255));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Admission, OneMoreOfAUserIsRefusedWhileOthersHaveRoom) {
  const CapturedLog log;
  EXPECT_FALSE(admitsConnection(4711, 1000, 256, 256));
  EXPECT_THAT(log.texts(LogLevel::warning), ElementsAre(tooManyOfUser));
}

TEST(Admission, AUserMayHaveTwoThirdsOfWhatOthersLeave) {
  const CapturedLog log;
  EXPECT_TRUE(admitsConnection(4711, 1000, 272 + 159, 159));
  EXPECT_FALSE(admitsConnection(4711, 1000, 272 + 160, 160));
  EXPECT_TRUE(admitsConnection(4711, 1000, 511, 0));
  EXPECT_FALSE(admitsConnection(4711, 1000, 511, 1));
  EXPECT_THAT(
      log.texts(LogLevel::warning),
      ElementsAre("IPCListener: Process 4711, user 1000 opened more than 160 connections of one "
                  "user; closing it",
                  "IPCListener: Process 4711, user 1000 opened more than 1 connections of one "
                  "user; closing it"));
}

TEST(Admission, WhereBothLimitsAreReachedThatOfAllIsNamed) {
  const CapturedLog log;
  EXPECT_FALSE(admitsConnection(4711, 1000, 512, 256));
  EXPECT_THAT(log.texts(LogLevel::warning), ElementsAre(tooMany));
}

}  // namespace
}  // namespace corvid
