#include <gtest/gtest.h>

#include "daemon/FetchPace.h"
#include "platform/Clock.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const Clock::TimePoint start{seconds(1000)};

TEST(FetchPace, LetsABurstThroughAndThenOneASecond) {
  FetchPace pace;
  for (int i = 0; i < FetchPace::burst; ++i) EXPECT_EQ(pace.next(7, start), start);
  EXPECT_EQ(pace.next(7, start), start + seconds(1));
  EXPECT_EQ(pace.next(7, start + milliseconds(400)), start + seconds(1));
  EXPECT_EQ(pace.next(7, start + seconds(1)), start + seconds(1));
  EXPECT_EQ(pace.next(7, start + seconds(1)), start + seconds(2));
}

TEST(FetchPace, EachUserHasOneOfTheirOwn) {
  FetchPace pace;
  for (int i = 0; i <= FetchPace::burst; ++i) pace.next(7, start);
  EXPECT_GT(pace.next(7, start), start);
  EXPECT_EQ(pace.next(8, start), start);
}

TEST(FetchPace, AfterARestThereIsAWholeBurstAgain) {
  FetchPace pace;
  for (int i = 0; i <= FetchPace::burst; ++i) pace.next(7, start);
  const Clock::TimePoint later = start + FetchPace::burst * FetchPace::interval;
  for (int i = 0; i < FetchPace::burst; ++i) EXPECT_EQ(pace.next(7, later), later);
  EXPECT_GT(pace.next(7, later), later);
}

}  // namespace
}  // namespace corvid
