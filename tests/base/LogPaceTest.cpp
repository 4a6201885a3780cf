#include <gtest/gtest.h>

#include <string>

#include "base/ActingUser.h"
#include "base/Complaint.h"
#include "base/Log.h"
#include "base/LogPace.h"
#include "tests/fakes/CapturedLog.h"

namespace corvid {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr int burst = 20;
const LogPace::Time start{minutes(1000)};
constexpr const char* line = "text";
constexpr const char* otherText = "other";
constexpr LogPace::Kind kind{1000, line};

class LogPaceTest : public testing::Test {
 protected:
  void passBurst(LogPace::Kind of = kind) {
    for (int i = 0; i < burst; ++i) EXPECT_EQ(pace.next(of, start), "") << i;
  }

  LogPace pace{burst};
};

TEST_F(LogPaceTest, PastTheBurstOneLineSaysSoAndTheRestIsCounted) {
  passBurst();
  EXPECT_EQ(pace.next(kind, start),
            " (further lines like it are counted and told of once a minute)");
  for (int i = 0; i < 500; ++i) EXPECT_EQ(pace.next(kind, start + seconds(59)), std::nullopt);
  EXPECT_EQ(pace.next(kind, start + minutes(1)), " (500 more like it in the meantime)");
  EXPECT_EQ(pace.next(kind, start + minutes(1)), std::nullopt);
  EXPECT_EQ(pace.next(kind, start + minutes(2)), " (1 more like it in the meantime)");
}

TEST_F(LogPaceTest, OneLineAMinuteIsWhatComesOfALongFlood) {
  passBurst();
  int lines = 0;
  for (int second = 0; second < 3600; ++second)
    lines += pace.next(kind, start + seconds(second)).has_value();
  EXPECT_EQ(lines, 60);
}

TEST_F(LogPaceTest, ALineAMinuteSaysNothingOfOthers) {
  passBurst();
  for (int minute = 1; minute < 60; ++minute)
    EXPECT_EQ(pace.next(kind, start + minutes(minute)), "");
}

TEST_F(LogPaceTest, AfterARestThereIsAWholeBurstAgain) {
  passBurst();
  for (int i = 0; i < 5; ++i) pace.next(kind, start);
  const LogPace::Time later = start + burst * LogPace::interval;
  EXPECT_EQ(pace.next(kind, later), " (4 more like it in the meantime)");
  for (int i = 1; i < burst; ++i) EXPECT_EQ(pace.next(kind, later), "");
  EXPECT_NE(pace.next(kind, later), "");
}

TEST_F(LogPaceTest, EachUserAndEachTextHasABurstOfItsOwn) {
  passBurst();
  pace.next(kind, start);
  EXPECT_EQ(pace.next(kind, start), std::nullopt);
  passBurst({1001, line});
  passBurst({1000, otherText});
}

TEST_F(LogPaceTest, KindsBeyondTheLimitShareOne) {
  for (std::uint32_t user = 1; user <= LogPace::mostKinds; ++user) pace.next({user, line}, start);
  int lines = 0;
  for (std::uint32_t user = 0; user < 1000; ++user)
    lines += pace.next({1'000'000 + user, line}, start).has_value();
  EXPECT_EQ(lines, burst + 1);
  EXPECT_EQ(pace.next({1, line}, start), "");
}

TEST(LogOfAUser, TellsOfOneComplaintOnlySoOften) {
  CapturedLog log;
  const ActingFor acting(1000);
  for (int i = 0; i < 100; ++i) logComplaint("connection {} broke a rule", i);
  ASSERT_EQ(log.lines().size(), LogPace::complaints + 1u);
  EXPECT_EQ(log.texts(LogLevel::warning)[LogPace::complaints - 1], "connection 19 broke a rule");
  EXPECT_EQ(log.texts(LogLevel::warning)[LogPace::complaints],
            "connection 20 broke a rule (further lines like it are counted and told of once a "
            "minute)");
  for (int i = 0; i < 5; ++i) logComplaint("another fault");
  EXPECT_EQ(log.lines().size(), LogPace::complaints + 6u);
}

TEST(LogOfAUser, TellsOfOtherErrorsAndWarningsMoreOften) {
  CapturedLog log;
  const ActingFor acting(1000);
  for (int i = 0; i < 5000; ++i) logError("event {} is lost", i);
  for (int i = 0; i < 5000; ++i) logWarning("event {} is odd", i);
  EXPECT_EQ(log.texts(LogLevel::error).size(), LogPace::others + 1u);
  EXPECT_EQ(log.texts(LogLevel::warning).size(), LogPace::others + 1u);
}

TEST(LogOfAUser, IsNotShortenedByAnothers) {
  CapturedLog log;
  for (const std::uint32_t user : {1000u, 1001u}) {
    const ActingFor acting(user);
    for (int i = 0; i < LogPace::complaints; ++i) logComplaint("odd");
  }
  EXPECT_EQ(log.lines().size(), 2u * LogPace::complaints);
}

TEST(LogOfAUser, TellsAllOfWhatIsNoFault) {
  CapturedLog log;
  const ActingFor acting(1000);
  for (int i = 0; i < 5000; ++i) logInfo("all is well");
  EXPECT_EQ(log.lines().size(), 5000u);
}

TEST(LogOfTheDaemon, TellsAll) {
  CapturedLog log;
  for (int i = 0; i < 5000; ++i) logComplaint("odd");
  EXPECT_EQ(log.lines().size(), 5000u);
}

}  // namespace
}  // namespace corvid
