// Scripts and journals of a soak.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/soak/ClientJournal.h"
#include "tests/soak/FaultScript.h"
#include "tests/support/Scratch.h"

namespace corvid::soak {
namespace {

using Told = std::vector<std::tuple<FaultKind, std::string, Time, Time>>;

Told told(const std::vector<Fault>& faults) {
  Told all;
  for (const Fault& fault : faults)
    all.emplace_back(fault.kind, fault.target, fault.begin, fault.end);
  return all;
}

TEST(FaultScript, ASeedHasOneScriptAndEachRoundItsOwn) {
  EXPECT_EQ(told(drawFaults(5, 1, 30'000)), told(drawFaults(5, 1, 30'000)));
  EXPECT_NE(told(drawFaults(5, 1, 30'000)), told(drawFaults(5, 2, 30'000)));
  EXPECT_NE(told(drawFaults(5, 1, 30'000)), told(drawFaults(6, 1, 30'000)));
}

TEST(FaultScript, EachKindComesAndNoneOutlastsItsRoundOrMeetsAnotherOfItsServer) {
  constexpr Time length = 30'000;
  std::set<FaultKind> kinds;
  for (int round = 0; round < 200; ++round) {
    std::map<std::string, Time> ends;
    for (const Fault& fault : drawFaults(1, round, length)) {
      kinds.insert(fault.kind);
      EXPECT_GT(fault.begin, 0);
      EXPECT_LE(fault.begin, fault.end);
      EXPECT_LT(fault.end, length);
      if (fault.target.empty()) continue;
      EXPECT_GE(fault.begin, ends[fault.target]) << "round " << round << " " << fault.target;
      ends[fault.target] = fault.end;
    }
  }
  EXPECT_EQ(kinds.size(), static_cast<std::size_t>(FaultKind::killClient) + 1);
}

TEST(ClientJournal, IsReadAsItWasWrittenUpToALineThatWasCut) {
  const ScratchFolder folder;
  const std::string path = folder.path("journal");
  {
    const ClientJournal journal(path);
    journal.opened("s1", "batch");
    journal.sent("e1", "s1");
    journal.answered("e1", "");
    journal.sent("e2", "s1");
    journal.answered("e2", "noConsent");
    journal.sent("e3", "s1");
    journal.flushAsked("s1", 0);
    journal.flushAsked("s1", 1);
    journal.flushAnswered("s1", 1);
    journal.ended("s1");
  }
  folder.write("journal", contentOf(path) + "answered 12 e3");
  History history;
  ClientJournal::read(path, history);
  ASSERT_EQ(history.sessions.size(), 1u);
  const Session& session = history.sessions["s1"];
  EXPECT_EQ(session.kind, "batch");
  EXPECT_TRUE(session.ended);
  ASSERT_EQ(session.flushes.size(), 2u);
  EXPECT_FALSE(session.flushes[0].answered);
  EXPECT_TRUE(session.flushes[1].answered);
  ASSERT_EQ(history.events.size(), 3u);
  EXPECT_TRUE(history.events["e1"].answered);
  EXPECT_EQ(history.events["e1"].dropped, "");
  EXPECT_EQ(history.events["e2"].dropped, "noConsent");
  EXPECT_FALSE(history.events["e3"].answered);
}

}  // namespace
}  // namespace corvid::soak
