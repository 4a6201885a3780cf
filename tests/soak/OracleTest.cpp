// The oracle finds what a daemon may do wrong, and nothing where it did right.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "tests/soak/Belongings.h"
#include "tests/soak/Oracle.h"

namespace corvid::soak {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr Time end = 100'000;

// A daemon that ran all the time and rests, with a session of each of two kinds.
class OracleTest : public testing::Test {
 protected:
  OracleTest() {
    history.sessions["batch"] = {.kind = "batch", .opened = 500};
    history.sessions["realtime"] = {.kind = "realtime", .opened = 500};
    history.lives.push_back({.begin = 0, .end = end});
  }
  Event& answered(const std::string& mark, std::string session = "batch", Time at = 10'000) {
    Event& event = history.events[mark];
    event = {.session = std::move(session), .sent = at, .answered = at + 5};
    ++ledger().accepted;
    return event;
  }
  void arrived(const std::string& mark, std::string session = "batch", int status = 200) {
    Event& event = answered(mark, std::move(session));
    event.arrivals.push_back({event.sent + 100, status});
    if (status == 200)
      ++ledger().delivered;
    else
      ++ledger().words["refused." + std::to_string(status)];
  }
  void counted(const std::string& word, std::int64_t count = 1) { ledger().words[word] += count; }
  void fault(FaultKind kind, std::string target, Time from = 9'000, Time until = 12'000) {
    history.faults.push_back({kind, std::move(target), from, until});
  }
  void kill(Time at) {
    history.lives.front().end = at;
    history.lives.front().ending = Life::Ending::killed;
    history.lives.push_back({.begin = at, .end = end});
  }
  Ledger& ledger() { return history.lives.front().after; }
  std::vector<std::string> complaints() const { return Oracle(history).complaints(); }

  History history;
};

TEST_F(OracleTest, WhatArrivedOnceIsRight) {
  arrived("one");
  arrived("two", "realtime");
  EXPECT_THAT(complaints(), IsEmpty());
}

TEST_F(OracleTest, AnEventThatIsLostIsFound) {
  arrived("one");
  answered("lost");
  ledger().accepted = 1;
  EXPECT_THAT(complaints(),
              ElementsAre(HasSubstr("lost (batch) was answered at 10005, and has not")));
}

TEST_F(OracleTest, AnEventThatCameTwiceIsFound) {
  arrived("one");
  history.events["one"].arrivals.push_back({20'000});
  EXPECT_THAT(complaints(), ElementsAre("one arrived 2 times"));
}

TEST_F(OracleTest, AnUnansweredEventMayArriveOrNotButNotTwice) {
  arrived("one");
  history.events["one"].answered.reset();
  history.events["two"] = {.session = "batch", .sent = 10};
  EXPECT_THAT(complaints(), IsEmpty());
  history.events["one"].arrivals.push_back({20'000});
  EXPECT_THAT(complaints(), ElementsAre("one arrived 2 times"));
}

TEST_F(OracleTest, AnEventThatNobodySentIsFound) {
  history.strangers.push_back("stray");
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("stray arrived, and nobody sent it")));
}

TEST_F(OracleTest, WhatAFaultCostsMustBeCountedUnderItsWord) {
  fault(FaultKind::expired, "bulk");
  answered("one");
  counted("failed.tls");
  EXPECT_THAT(complaints(), IsEmpty());
  ledger() = {.accepted = 1, .words = {{"failed.resolve", 1}}};
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("1 events did not arrive"),
                                        HasSubstr("failed.resolve, for which there was no cause")));
}

TEST_F(OracleTest, MoreThanWasCountedIsFound) {
  fault(FaultKind::refuse, "bulk");
  answered("one");
  answered("two");
  counted("failed.connect");
  ledger().accepted = 1;
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("1 events did not arrive")));
}

TEST_F(OracleTest, AFaultOfAnotherServerOrAnotherTimeAllowsNothing) {
  fault(FaultKind::refuse, "live");
  fault(FaultKind::refuse, "bulk", 1'000, 2'000);
  answered("one");
  counted("failed.connect");
  // The word had a cause, though not for this event.
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("one (batch) was answered")));
}

TEST_F(OracleTest, AFaultAfterAnEventIsSettledAllowsNothing) {
  fault(FaultKind::refuse, "bulk", 60'000, 61'000);
  fault(FaultKind::refuse, "live", 60'000, 61'000);
  counted("failed.connect", 2);
  answered("batched");
  ledger().accepted = 2;
  EXPECT_THAT(complaints(), IsEmpty());
  history.sessions["batch"].flushes = {{20'000, 21'000}};
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("batched (batch) was answered")));
  history.sessions["batch"].flushes.clear();
  history.sessions["batch"].ended = 21'000;
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("batched (batch) was answered")));
  history.events.erase("batched");
  answered("posted", "realtime");
  ledger().accepted = 2;
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("posted (realtime) was answered")));
}

TEST_F(OracleTest, WhatWasAnsweredBadlyIsCountedAndNotDelivered) {
  fault(FaultKind::status404, "bulk");
  arrived("one", "batch", 404);
  EXPECT_THAT(complaints(), IsEmpty());
  ledger() = {.accepted = 1, .delivered = 1};
  EXPECT_THAT(complaints(),
              ElementsAre(HasSubstr("1 events are counted as delivered, and collectors took 0"),
                          HasSubstr("1 events did not arrive, or were answered badly")));
}

TEST_F(OracleTest, AReasonInAnAnswerNeedsACauseAndACount) {
  answered("one").dropped = "noConsent";
  counted("dropped.noConsent");
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("one (batch) was answered as dropped.noConsent"),
                                        HasSubstr("for which there was no cause")));
  history.sessions["unknown"] = {.kind = "unknown", .opened = 1};
  history.events.clear();
  answered("two", "unknown").dropped = "unknownClientType";
  ledger() = {};
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("1 events were answered as dropped.unknownClient"
                                                  "Type, and 0 are counted")));
}

TEST_F(OracleTest, WhatWasDroppedDoesNotArrive) {
  history.sessions["unknown"] = {.kind = "unknown", .opened = 1};
  arrived("one", "unknown");
  history.events["one"].dropped = "unknownClientType";
  EXPECT_THAT(complaints(),
              testing::Contains(HasSubstr("one arrived, and was answered as dropped")));
}

TEST_F(OracleTest, ABatchIsInMemoryUntilAFlushThatCompleted) {
  kill(60'000);
  answered("one");
  EXPECT_THAT(complaints(), IsEmpty());
  history.sessions["batch"].flushes = {{5'000, 6'000}, {20'000, std::nullopt}};
  EXPECT_THAT(complaints(), IsEmpty());
  history.sessions["batch"].flushes.push_back({30'000, 31'000});
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("one (batch) was answered")));
}

TEST_F(OracleTest, ABatchOfASessionThatEndedLongBeforeTheKillIsNotInMemory) {
  kill(60'000);
  answered("one");
  history.sessions["batch"].ended = 59'000;
  EXPECT_THAT(complaints(), IsEmpty());
  history.sessions["batch"].ended = 15'000;
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("one (batch) was answered")));
}

TEST_F(OracleTest, ARealtimeEventIsOnItsWayForAWhileOnly) {
  kill(60'000);
  answered("one", "realtime", 59'000);
  EXPECT_THAT(complaints(), IsEmpty());
  answered("two", "realtime", 10'000);
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("two (realtime) was answered")));
}

TEST_F(OracleTest, NothingIsInMemoryOfADaemonThatWasStopped) {
  kill(60'000);
  history.lives.front().ending = Life::Ending::stopped;
  answered("one");
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("one (batch) was answered")));
}

TEST_F(OracleTest, ALossAtAStopNeedsAServerThatFailedThen) {
  kill(60'000);
  history.lives.front().ending = Life::Ending::stopped;
  history.lives.front().lostAtStop = 3;
  fault(FaultKind::hang, "bulk", 1'000, 2'000);
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("3 events are lost at a stop")));
  fault(FaultKind::hang, "bulk", 55'000, 61'000);
  EXPECT_THAT(complaints(), IsEmpty());
}

// Seed 1, after an hour.
TEST_F(OracleTest, AStopLosesWhatASlowServerHasNotAnsweredInItsTime) {
  kill(60'000);
  history.lives.front().ending = Life::Ending::stopped;
  answered("one", "realtime", 49'000);
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("one (realtime) was answered")));
  fault(FaultKind::slow, "live", 48'000, 60'000);
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("one (realtime) was answered"))) << "unsaid";
  history.lives.front().lostAtStop = 1;
  EXPECT_THAT(complaints(), IsEmpty());
  answered("two", "realtime", 49'000);
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("2 events can only be lost at the stop")));
}

TEST_F(OracleTest, ALedgerThatDoesNotAddUpOrHoldsSomethingAtRestIsFound) {
  arrived("one");
  ledger().accepted = 2;
  EXPECT_THAT(complaints(), ElementsAre("the ledger does not add up"));
  ledger().held = 1;
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("at rest 1 events are held")));
}

TEST_F(OracleTest, OnlyWhatTheRoundAddedToTheLedgerCounts) {
  fault(FaultKind::refuse, "bulk");
  answered("one");
  history.lives.front().before = {.accepted = 1, .words = {{"failed.connect", 1}}};
  ledger() = {.accepted = 1, .words = {{"failed.connect", 1}}};
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("1 events did not arrive")));
}

std::string line(std::string_view text) {
  return "2026-11-23 02:11:37.045 error corvidd[31413]: " + std::string(text);
}

TEST_F(OracleTest, ALineThatNoListHasIsFound) {
  history.log = {line("IPCListener: accept failed, trying again: No thread")};
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("no list allows the line")));
  history.log = {"terminate called without an active exception"};
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("no list allows the line: terminate")));
}

TEST_F(OracleTest, ALineOfAFaultIsAllowedWithTheFaultOnly) {
  history.log = {line("writeToLogFile: A log message is lost: No space left on device")};
  EXPECT_THAT(complaints(), ElementsAre(HasSubstr("no list allows the line")));
  fault(FaultKind::fullDisk, "");
  EXPECT_THAT(complaints(), IsEmpty());
}

TEST(BelongingsTest, OneTooManyOfEachIsFound) {
  const Belongings before{.descriptors = 20, .connections = 3, .threads = 7, .memory = 1000};
  EXPECT_THAT(complaintsAbout(before, before, 0), IsEmpty());
  Belongings now = before;
  ++now.descriptors;
  EXPECT_THAT(complaintsAbout(now, before, 0),
              ElementsAre("at rest it has 21 descriptors, not 20"));
  now = before;
  ++now.threads;
  EXPECT_THAT(complaintsAbout(now, before, 0), ElementsAre("at rest it has 8 threads, not 7"));
  now = before;
  now.memory += 10;
  EXPECT_THAT(complaintsAbout(now, before, 10), IsEmpty());
  EXPECT_THAT(complaintsAbout(now, before, 9), ElementsAre(HasSubstr("1010 bytes of memory")));
  now = before;
  now.connections = mostConnections + 1;
  EXPECT_THAT(complaintsAbout(now, before, 0), ElementsAre(HasSubstr("connections, not")));
}

}  // namespace
}  // namespace corvid::soak
