#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>
#include <vector>

#include "platform/SharedBudget.h"
#include "platform/system/SystemClock.h"
#include "tests/fakes/FakeClock.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;

struct SharedBudgetTest : testing::Test {
  std::shared_ptr<SharedBudget> budget = std::make_shared<SharedBudget>(60);
};

TEST_F(SharedBudgetTest, AUserGetsItsShareAndNoMore) {
  const auto first = budget->take(1, 30);
  const auto second = budget->take(1, 10);
  EXPECT_TRUE(first && second);
  EXPECT_FALSE(budget->take(1, 1));
  EXPECT_EQ(budget->held(), 40u);
  EXPECT_TRUE(budget->take(2, 1)) << "another user has its own";
}

TEST_F(SharedBudgetTest, UsersWhoTakeWhatTheyCanLeaveRoomForTheNext) {
  const auto large = std::make_shared<SharedBudget>(100'000);
  std::vector<SharedBudget::Share> shares;
  for (std::uint32_t user = 1; user <= 9; ++user) {
    shares.push_back(large->none(user));
    while (shares.back().grow(1)) continue;
    EXPECT_GT(shares.back().amount(), 0u) << "user " << user;
  }
  EXPECT_LT(large->held(), 100'000u);
  EXPECT_TRUE(large->take(10, 1));
}

TEST_F(SharedBudgetTest, WhoHoldsNothingMayHaveWhateverIsFree) {
  auto large = budget->take(1, 50);
  EXPECT_TRUE(large);
  EXPECT_FALSE(budget->take(2, 11)) << "but not more";
  EXPECT_FALSE(budget->take(1, 1));
  large.reset();
  EXPECT_TRUE(budget->take(2, 60));
}

TEST_F(SharedBudgetTest, NothingIsAlwaysThere) {
  const auto all = budget->take(1, 60);
  EXPECT_TRUE(budget->take(1, 0));
  EXPECT_TRUE(budget->none(2).grow(0));
}

TEST_F(SharedBudgetTest, WhoHoldsAShareOfNothingHoldsNothing) {
  const auto nothing = budget->take(1, 0);
  EXPECT_TRUE(budget->take(1, 60));
}

TEST_F(SharedBudgetTest, AShareGivesBackWhatItIsShrunkByAndTheRestWithItsEnd) {
  {
    auto share = budget->take(1, 40);
    share->shrink(10);
    EXPECT_EQ(budget->held(), 10u);
    share->shrink(20);
    EXPECT_EQ(share->amount(), 10u) << "shrinking never takes more";
    EXPECT_TRUE(share->grow(30));
    SharedBudget::Share moved = std::move(share.value());
    share.reset();
    EXPECT_EQ(budget->held(), 40u) << "what was moved goes with its new owner";
    moved = SharedBudget::Share();
    EXPECT_EQ(budget->held(), 0u);
  }
  EXPECT_TRUE(budget->take(1, 60)) << "the user is forgotten";
}

TEST_F(SharedBudgetTest, AShareThatCannotGrowStaysAsItIs) {
  auto share = budget->take(1, 30);
  EXPECT_FALSE(share->grow(11));
  EXPECT_EQ(share->amount(), 30u);
  EXPECT_EQ(budget->held(), 30u);
  EXPECT_FALSE(SharedBudget::Share().grow(1)) << "a share of no budget never grows";
}

TEST_F(SharedBudgetTest, WhoWaitsGetsItsShareWhenSomethingIsGivenBack) {
  FakeClock clock;
  auto first = budget->take(1, 40);
  auto waiting = std::async(std::launch::async, [&] {
    return budget->take(1, 20, clock, clock.steadyNow() + std::chrono::hours(1));
  });
  EXPECT_EQ(waiting.wait_for(milliseconds(20)), std::future_status::timeout);
  first->shrink(20);
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  const auto share = waiting.get();
  ASSERT_TRUE(share);
  EXPECT_EQ(share->amount(), 20u);
  EXPECT_EQ(budget->held(), 40u);
}

TEST_F(SharedBudgetTest, AllWhoWaitHearThatSomethingIsGivenBack) {
  SystemClock clock;
  auto first = budget->take(1, 40);
  const auto takeLater = [&](std::uint32_t user, std::size_t amount) {
    return std::async(std::launch::async, [&, user, amount] {
      return budget->take(user, amount, clock, clock.steadyNow() + std::chrono::seconds(20));
    });
  };
  auto large = takeLater(2, 55);
  EXPECT_EQ(large.wait_for(milliseconds(20)), std::future_status::timeout);
  auto small = takeLater(3, 25);
  EXPECT_EQ(small.wait_for(milliseconds(20)), std::future_status::timeout);
  first->shrink(30);
  ASSERT_EQ(small.wait_for(std::chrono::seconds(10)), std::future_status::ready)
      << "what is too little for one is enough for another";
  EXPECT_TRUE(small.get());
  first.reset();
  ASSERT_EQ(large.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(large.get());
}

TEST_F(SharedBudgetTest, WhoWaitsInVainGetsNothing) {
  FakeClock clock;
  const auto first = budget->take(1, 40);
  auto waiting = std::async(std::launch::async, [&] {
    return budget->take(1, 1, clock, clock.steadyNow() + milliseconds(500));
  });
  EXPECT_EQ(waiting.wait_for(milliseconds(20)), std::future_status::timeout);
  clock.advance(milliseconds(500));
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_FALSE(waiting.get());
  EXPECT_EQ(budget->held(), 40u);
}

}  // namespace
}  // namespace corvid
