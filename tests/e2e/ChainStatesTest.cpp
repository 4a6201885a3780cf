// What a parent's state does to its child's events, and what user info and batches do.
#include "base/Reading.h"
#include "tests/e2e/ChainFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr const char* nothingToFlush = "Nothing to flush";

class ChainStates : public ChainFixture {
 protected:
  std::size_t changes() const {
    return timesLogged("receivedUserInfo: Received new user info for session");
  }
  // Nothing above it, so that the draw always exceeds it and always exceeds the second threshold.
  static Dictionary sampledOut() {
    return {{"sampling_threshold", 0.0}, {"override_sampling", -1.0}};
  }
};

// User info

TEST_F(ChainStates, UnchangedNamesRegroupNobodyButTheOtherEntriesAreTaken) {
  auto top = join(0);
  auto child = join(1);
  Dictionary more = ChainMember::userInfo("Player");
  more.set("seat", "7");
  EXPECT_EQ(child.fetchStates(more), "httpPost");
  EXPECT_EQ(changes(), 0u);
  child.sendAndFlush("event");
  EXPECT_EQ(textOf("event", "seat"), "7");
  EXPECT_EQ(textOf("event"), top.identifier + "." + child.identifier);
}

TEST_F(ChainStates, UserInfoThatIsRequiredStaysWhereNoneIsGiven) {
  auto top = join(0);
  auto child = join(1);
  EXPECT_EQ(child.fetchStates(std::nullopt), "httpPost");
  EXPECT_EQ(changes(), 0u);
  child.sendAndFlush("event");
  EXPECT_EQ(textOf("event", "_clientName"), "Player");
  EXPECT_EQ(textOf("event"), top.identifier + "." + child.identifier);
}

TEST_F(ChainStates, UserInfoThatIsNotRequiredGoesWhereNoneIsGiven) {
  auto loner = join({.level = 1, .requiresUserInfo = false});
  loner.sendAndFlush("with");
  EXPECT_EQ(loner.fetchStates(std::nullopt), "httpPost");
  EXPECT_EQ(changes(), 1u);
  EXPECT_TRUE(_daemon->waitForLog("userInfoUpdatedForSession: No user info found for session 1"));
  loner.sendAndFlush("without");
  EXPECT_EQ(textOf("with", "_clientName"), "Player");
  EXPECT_EQ(textOf("without", "_clientName"), "");
}

TEST_F(ChainStates, ChangedNamesRegroupTheSession) {
  auto child = join(1);
  EXPECT_EQ(child.fetchStates(ChainMember::userInfo("Player", "Radio")), "httpPost");
  EXPECT_EQ(changes(), 1u);
  auto top = join({.level = 0, .serviceName = "Radio"});
  child.sendAndFlush("event");
  EXPECT_EQ(textOf("event"), top.identifier + "." + child.identifier);
  EXPECT_EQ(textOf("event", "_serviceName"), "Radio");
}

// Batches

TEST_F(ChainStates, ABatchThatIsHeldGetsTheNewCombinedIDAndWhatHasLeftKeepsTheOld) {
  auto child = join(1);
  child.send("left at once", 1);
  EXPECT_EQ(textOf("left at once"), child.identifier);
  for (const char* mark : {"held 1", "held 2", "held 3"}) child.send(mark);
  auto top = join(0);
  child.sendAndFlush("new");
  for (const char* mark : {"held 1", "held 2", "held 3", "new"})
    EXPECT_EQ(textOf(mark), top.identifier + "." + child.identifier) << mark;
  EXPECT_EQ(textOf("left at once"), child.identifier);
}

// Parents that do not send

TEST_F(ChainStates, AParentThatItsServerDisabledSilencesItsChildAtTheNextChange) {
  auto top = join(0);
  auto child = join(1);
  child.sendAndFlush("before");
  ASSERT_EQ(arrivals("before"), 1u);
  plan("events", {{"status", 503}});
  EXPECT_EQ(top.flush(), "backend httpPost disabled by server 503 return code");
  child.sendAndFlush("nobody has told it");
  ASSERT_EQ(arrivals("nobody has told it"), 1u);
  EXPECT_EQ(child.fetchStates(ChainMember::userInfo("PLAYER")), "");
  child.send("silenced", 1);
  EXPECT_EQ(child.flush(), nothingToFlush);
  // The parent's own change makes it send again, and the child with it.
  EXPECT_EQ(top.fetchStates(ChainMember::userInfo("PLAYER")), "httpPost");
  child.sendAndFlush("sends again");
  EXPECT_EQ(textOf("sends again"), top.identifier + "." + child.identifier);
  EXPECT_EQ(arrivals("silenced"), 0u);
}

TEST_F(ChainStates, AParentThatIsSampledOutSilencesAChildThatIsSending) {
  publishLevel(0, sampledOut());
  auto child = join(1);
  child.sendAndFlush("before");
  auto top = join(0);
  EXPECT_EQ(top.states(), "");
  child.send("silenced", 1);
  EXPECT_EQ(child.flush(), nothingToFlush);
  EXPECT_EQ(child.fetchStates(std::nullopt), "");
  EXPECT_EQ(textOf("before"), child.identifier);
  EXPECT_EQ(child.process().end(), 0);
  EXPECT_TRUE(_daemon->waitForLog("dealloc: CorviddSession dealloc: 1"));
  EXPECT_EQ(arrivals("silenced"), 0u);
  EXPECT_EQ(recordsOfLevel(1).size(), 2u) << "start message and event, no end message";
}

TEST_F(ChainStates, AParentThatIsHeldHoldsItsChildUntilAFlagLiftsIt) {
  publishLevel(0, {{"sampling_threshold", 0.0}});
  auto child = join(1);
  child.sendAndFlush("before");
  auto top = join(0);
  EXPECT_EQ(top.states(), "httpPost");
  EXPECT_TRUE(_daemon->waitForLog(
      "HTTPSPostBackend(syncReportingStates): httpPost: state and sampling rate updated to 3, "
      "0.00%"));
  EXPECT_EQ(child.fetchStates(std::nullopt), "httpPost");
  child.send("dropped by a flush");
  EXPECT_EQ(child.flush(), nothingToFlush);
  child.send("held");
  child.send("lifts", 2);
  EXPECT_EQ(child.flush(), "flushed");
  for (const char* mark : {"held", "lifts"})
    EXPECT_EQ(textOf(mark), top.identifier + "." + child.identifier);
  EXPECT_EQ(arrivals("dropped by a flush"), 0u);
  EXPECT_EQ(top.flush(), nothingToFlush) << "the child's flag is no matter of its parent";
}

TEST_F(ChainStates, AChildThatIsHeldStaysSoUnderAParentThatSends) {
  publishLevel(1, {{"sampling_threshold", 0.0}});
  auto top = join(0);
  auto child = join(1);
  EXPECT_EQ(child.states(), "httpPost");
  child.send("held");
  EXPECT_EQ(child.flush(), nothingToFlush);
  top.sendAndFlush("sends");
  EXPECT_EQ(textOf("sends"), top.identifier);
  EXPECT_EQ(arrivals("held"), 0u);
}

TEST_F(ChainStates, ABackendThatTheParentLacksIsDisabledInTheChild) {
  const Array clients{entryOf(1)};
  publish("cadence", {{"version", "two backends"},
                      {"refresh_cycle", 3600},
                      {"release", Dictionary{{"httpPost", Dictionary{{"clients", clients}}},
                                             {"httpPost2", Dictionary{{"clients", clients}}}}}});
  auto child = join(1);
  EXPECT_EQ(child.states(), "httpPost,httpPost2");
  child.sendAndFlush("twice");
  EXPECT_TRUE(waitUntil([&] { return arrivals("twice") == 2; }));
  auto top = join(0);
  EXPECT_EQ(child.fetchStates(std::nullopt), "httpPost");
  child.send("once");
  child.flush();  // one of the backends has nothing to flush
  EXPECT_EQ(textOf("once"), top.identifier + "." + child.identifier);
  EXPECT_EQ(child.process().end(), 0);
  ASSERT_TRUE(endMessageOfLevel(1));
  EXPECT_EQ(arrivals("once"), 1u);
}

// Thresholds

TEST_F(ChainStates, TheParentsThresholdIsCopied) {
  publishLevel(0, {{"sampling_threshold", 1.5}});
  auto top = join(0);
  auto child = join(1);
  auto loner = join({.level = 2, .clientName = "Recorder"});
  EXPECT_TRUE(_daemon->waitForLog(
      "HTTPSPostBackend(syncReportingStates): httpPost: state and sampling rate updated to 2, "
      "1.50%"));
  EXPECT_EQ(child.process().end(), 0);
  EXPECT_EQ(loner.process().end(), 0);
  const auto copied = endMessageOfLevel(1);
  const auto own = endMessageOfLevel(2);
  ASSERT_TRUE(copied && own);
  EXPECT_EQ(asNumber(copied->find("SamplingThreshold")), 1.5);
  EXPECT_EQ(asNumber(own->find("SamplingThreshold")), 1.0);
}

}  // namespace
}  // namespace corvid
