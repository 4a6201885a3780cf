#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "backends/ExchangeGate.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
constexpr milliseconds longPatience{20'000};

struct ExchangeGateTest : testing::Test {
  TestPlatform platform;
};

TEST_F(ExchangeGateTest, LetsInWhatFitsHoweverMany) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 3000);
  std::vector<ExchangeGate::Pass> passes;
  for (int i = 0; i < 3000; ++i) passes.push_back(gate->enter(longPatience, 1));
  EXPECT_EQ(gate->bytesOut(), 3000u);
}

TEST_F(ExchangeGateTest, APassLeavesOnceWhenItsLastCopyGoes) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 1);
  ExchangeGate::Pass pass = gate->enter(longPatience, 1);
  ExchangeGate::Pass copy = pass;
  pass.reset();
  EXPECT_EQ(gate->bytesOut(), 1u);
  copy.reset();
  EXPECT_EQ(gate->bytesOut(), 0u);
}

TEST_F(ExchangeGateTest, AtTheLimitTheNextWaitsUntilOneLeaves) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 1);
  ExchangeGate::Pass first = gate->enter(longPatience, 1);
  auto second = std::async(std::launch::async, [&] { return gate->enter(longPatience, 1); });
  EXPECT_EQ(second.wait_for(milliseconds(20)), std::future_status::timeout);
  first.reset();
  ASSERT_EQ(second.wait_for(longPatience), std::future_status::ready);
  const ExchangeGate::Pass pass = second.get();
  EXPECT_EQ(gate->bytesOut(), 1u);
}

TEST_F(ExchangeGateTest, WhatDoesNotFitBesideTheOthersWaitsUntilItDoes) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 100);
  ExchangeGate::Pass large = gate->enter(longPatience, 60);
  const ExchangeGate::Pass fits = gate->enter(longPatience, 40);
  auto next = std::async(std::launch::async, [&] { return gate->enter(longPatience, 1); });
  EXPECT_EQ(next.wait_for(milliseconds(20)), std::future_status::timeout);
  large.reset();
  ASSERT_EQ(next.wait_for(longPatience), std::future_status::ready);
  EXPECT_TRUE(next.get());
}

TEST_F(ExchangeGateTest, WhatFitsPassesThatWhichStillWaits) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 100);
  ExchangeGate::Pass first = gate->enter(longPatience, 50);
  ExchangeGate::Pass second = gate->enter(longPatience, 50);
  auto large = std::async(std::launch::async, [&] { return gate->enter(longPatience, 60); });
  auto small = std::async(std::launch::async, [&] { return gate->enter(longPatience, 50); });
  EXPECT_EQ(small.wait_for(milliseconds(20)), std::future_status::timeout);
  first.reset();
  ASSERT_EQ(small.wait_for(longPatience), std::future_status::ready);
  EXPECT_EQ(large.wait_for(milliseconds(20)), std::future_status::timeout);
  second.reset();
  small.get().reset();
  ASSERT_EQ(large.wait_for(longPatience), std::future_status::ready);
}

TEST_F(ExchangeGateTest, WhatIsPastTheLimitByItselfGoesAlone) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 100);
  ExchangeGate::Pass alone = gate->enter(longPatience, 1000);
  auto next = std::async(std::launch::async, [&] { return gate->enter(longPatience, 0); });
  EXPECT_EQ(next.wait_for(milliseconds(20)), std::future_status::timeout);
  alone.reset();
  ASSERT_EQ(next.wait_for(longPatience), std::future_status::ready);
}

TEST_F(ExchangeGateTest, WhenPatienceEndsThePassIsGivenAllTheSame) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 1);
  const ExchangeGate::Pass first = gate->enter(longPatience, 1);
  EXPECT_TRUE(gate->enter(milliseconds(0), 1));
  auto second = std::async(std::launch::async, [&] { return gate->enter(longPatience, 1); });
  EXPECT_TRUE(platform.clock->awaitSleeper(longPatience));
  platform.clock->advance(longPatience - milliseconds(1));
  EXPECT_EQ(second.wait_for(milliseconds(20)), std::future_status::timeout);
  platform.clock->advance(milliseconds(1));
  EXPECT_TRUE(second.get());
}

TEST_F(ExchangeGateTest, PassesOutliveTheOwnersHold) {
  auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 1);
  ExchangeGate::Pass pass = gate->enter(longPatience, 1);
  const std::weak_ptr<ExchangeGate> watched = gate;
  gate.reset();
  EXPECT_FALSE(watched.expired());
  pass.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(ExchangeGateTest, ManyThreadsNeverExceedTheLimit) {
  constexpr int limit = 4;
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, limit);
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        const ExchangeGate::Pass pass = gate->enter(longPatience, 1);
        const int now = ++inside;
        int seen = most;
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::yield();
        --inside;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(most, 0);
  EXPECT_LE(most, limit);
  EXPECT_EQ(gate->bytesOut(), 0u);
}

}  // namespace
}  // namespace corvid
