#include <gtest/gtest.h>

#include "platform/system/SystemClock.h"

namespace corvid {
namespace {

double wallClock() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(time).count();
}

TEST(SystemClock, TellsTheTimeOfDay) {
  SystemClock clock;
  const double before = wallClock();
  const TimeValue now = clock.now();
  const double after = wallClock();
  EXPECT_GE(now.asDouble(), before - 0.001);
  EXPECT_LE(now.asDouble(), after + 0.001);
  EXPECT_GE(now.microseconds, 0);
  EXPECT_LT(now.microseconds, 1'000'000);
}

TEST(SystemClock, MeasuresOnTheSteadyClock) {
  SystemClock clock;
  const auto before = std::chrono::steady_clock::now();
  const auto now = clock.steadyNow();
  EXPECT_GE(now, before);
  EXPECT_LE(now, std::chrono::steady_clock::now());
}

TEST(SystemClock, SleepsUpToTheDeadlineAndADayAtMost) {
  SystemClock clock;
  const auto now = clock.steadyNow();
  EXPECT_EQ(clock.sleepTowards(now), std::chrono::nanoseconds(0));
  EXPECT_LE(clock.sleepTowards(now + std::chrono::hours(1)), std::chrono::hours(1));
  EXPECT_GT(clock.sleepTowards(now + std::chrono::hours(1)), std::chrono::minutes(59));
  EXPECT_EQ(clock.sleepTowards(Clock::TimePoint::max()), std::chrono::hours(24));
}

}  // namespace
}  // namespace corvid
