#include <gtest/gtest.h>

#include <thread>

#include "base/ActingUser.h"

namespace corvid {
namespace {

TEST(ActingUser, IsTheDaemonItselfUnlessSaidOtherwise) { EXPECT_EQ(actingUser(), std::nullopt); }

TEST(ActingUser, IsTheInnermostAndAfterItTheOneBefore) {
  const ActingFor outer(1000);
  {
    const ActingFor inner(1001);
    EXPECT_EQ(actingUser(), 1001u);
    const ActingFor daemon(std::nullopt);
    EXPECT_EQ(actingUser(), std::nullopt);
  }
  EXPECT_EQ(actingUser(), 1000u);
}

TEST(ActingUser, IsOneOfEachThread) {
  const ActingFor acting(1000);
  User seen = 1;
  std::thread([&] { seen = actingUser(); }).join();
  EXPECT_EQ(seen, std::nullopt);
}

}  // namespace
}  // namespace corvid
