#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/data/SystemRandom.h"

namespace corvid {
namespace {

TEST(SystemRandom, UUIDsAreOfVersionFourAndAllDifferent) {
  SystemRandom random;
  std::set<UUIDBytes> seen;
  UUIDBytes everSet{}, everClear{};
  for (int i = 0; i < 1000; ++i) {
    const UUIDBytes uuid = random.uuid();
    EXPECT_EQ(uuid[6] >> 4, 4);
    EXPECT_EQ(uuid[8] >> 6, 2);
    for (std::size_t b = 0; b < uuid.size(); ++b) {
      everSet[b] = static_cast<std::uint8_t>(everSet[b] | uuid[b]);
      everClear[b] = static_cast<std::uint8_t>(everClear[b] | ~uuid[b]);
    }
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 1000u);
  // Every other bit has been both.
  for (std::size_t b = 0; b < everSet.size(); ++b) {
    EXPECT_EQ(everSet[b], b == 6 ? 0x4F : b == 8 ? 0xBF : 0xFF) << b;
    EXPECT_EQ(everClear[b], b == 6 ? 0xBF : b == 8 ? 0x7F : 0xFF) << b;
  }
}

TEST(SystemRandom, DrawsAreThoseOfThe48BitGenerator) {
  SystemRandom random(SystemRandom::Seed{0x1234, 0x5678, 0x9abc});
  std::uint64_t state = 0x9abc'5678'1234;
  for (int i = 0; i < 100; ++i) {
    state = (state * 0x5DEECE66D + 0xB) & 0xFFFF'FFFF'FFFF;
    EXPECT_EQ(random.uniform(), static_cast<double>(state) / static_cast<double>(1ull << 48));
  }
}

TEST(SystemRandom, DrawsLieBetweenZeroAndOne) {
  SystemRandom random;
  double sum = 0;
  for (int i = 0; i < 10'000; ++i) {
    const double draw = random.uniform();
    EXPECT_GE(draw, 0);
    EXPECT_LT(draw, 1);
    sum += draw;
  }
  EXPECT_NEAR(sum / 10'000, 0.5, 0.05);
}

TEST(SystemRandom, TwoStartsGiveDifferentDraws) {
  EXPECT_NE(SystemRandom().uniform(), SystemRandom().uniform());
}

TEST(SystemRandom, ThreadsShareOneSequence) {
  SystemRandom random(SystemRandom::Seed{1, 2, 3});
  std::vector<std::vector<double>> draws(4);
  std::vector<std::thread> threads;
  for (auto& own : draws)
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) own.push_back(random.uniform());
    });
  for (std::thread& thread : threads) thread.join();
  std::multiset<double> together, expected;
  for (const auto& own : draws) together.insert(own.begin(), own.end());
  SystemRandom alone(SystemRandom::Seed{1, 2, 3});
  for (int i = 0; i < 4000; ++i) expected.insert(alone.uniform());
  EXPECT_EQ(together, expected);
}

}  // namespace
}  // namespace corvid
