// Client processes that join and leave a chain, and the session IDs that arrive at the collector.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "base/Reading.h"
#include "tests/e2e/ChainFixture.h"

namespace corvid {
namespace {

using Order = std::array<int, 3>;

constexpr std::array<Order, 6> everyOrder{
    {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}}};

std::string nameOf(const testing::TestParamInfo<Order>& info) {
  return fmt::format("{}{}{}", info.param[0], info.param[1], info.param[2]);
}

class Chains : public ChainFixture {
 protected:
  static std::string combined(const ChainMember& a, const ChainMember& b) {
    return a.identifier + "." + b.identifier;
  }
  static std::string combined(const ChainMember& a, const ChainMember& b, const ChainMember& c) {
    return combined(a, b) + "." + c.identifier;
  }
};

class ThreeLevels : public Chains, public testing::WithParamInterface<Order> {
 protected:
  // The whole chain, joined in this order.
  void joinAll(const Order& order) {
    for (const int level : order) members.emplace(level, join(level));
    std::string identifier;
    for (auto& [level, member] : members) {
      identifier += (level == 0 ? "" : ".") + member.identifier;
      identifiers[level] = identifier;
    }
  }

  std::map<int, ChainMember> members;
  std::map<int, std::string> identifiers;  // combined, by level
};

// Joining

TEST_P(ThreeLevels, CarryTheirCombinedIDsInWhateverOrderTheyJoin) {
  joinAll(GetParam());
  for (auto& [level, member] : members) {
    EXPECT_EQ(member.states(), "httpPost");
    member.sendAndFlush(fmt::format("event {}", level));
  }
  for (auto& [level, member] : members) {
    EXPECT_EQ(textOf(fmt::format("event {}", level)), identifiers[level]);
    // The start message, which was held since before the others joined, too.
    const auto arrived = recordsOfLevel(level);
    EXPECT_EQ(arrived.size(), 2u);
    for (const Dictionary& record : arrived)
      EXPECT_EQ(*stringAt(record, "_sessionID"), identifiers[level]) << level;
  }
}

TEST_P(ThreeLevels, KeepTheirCombinedIDsInWhateverOrderTheyLeave) {
  joinAll({0, 1, 2});
  for (const int leaving : GetParam()) {
    EXPECT_EQ(members.at(leaving).process().end(), 0);
    members.erase(leaving);
    const auto end = endMessageOfLevel(leaving);
    ASSERT_TRUE(end);
    EXPECT_EQ(*stringAt(*end, "_sessionID"), identifiers[leaving]);
    EXPECT_EQ(*stringAt(*end, "StorebagVersion"), fmt::format("level {}", leaving));
    for (auto& [level, member] : members) {
      const std::string mark = fmt::format("{} after {}", level, leaving);
      member.sendAndFlush(mark);
      EXPECT_EQ(textOf(mark), identifiers[level]);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Orders, ThreeLevels, testing::ValuesIn(everyOrder), nameOf);

TEST_F(Chains, TheDaemonMayEndOnceTheWholeChainHasLeft) {
  _daemon.reset();
  startDaemon({"--idle-exit", "2"});
  {
    auto top = ClientProcess(_root.path());
    auto child = ClientProcess(_root.path());
    EXPECT_EQ(_daemon->waitForExit(std::chrono::milliseconds(2500)), std::nullopt);
    top.kill();
    EXPECT_EQ(child.end(), 0);
  }
  EXPECT_EQ(_daemon->waitForExit(), 0);
}

// A level that is missing

TEST_F(Chains, WithoutItsParentASessionKeepsItsOwnIDUntilTheParentComes) {
  auto top = join(0);
  auto grandchild = join(2);
  EXPECT_TRUE(_daemon->waitForLog(
      "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): "
      "incomplete parentSessionID is '(null)'"));
  grandchild.sendAndFlush("alone");
  EXPECT_EQ(textOf("alone"), grandchild.identifier);
  auto child = join(1);
  grandchild.sendAndFlush("complete");
  EXPECT_EQ(textOf("complete"), combined(top, child, grandchild));
}

TEST_F(Chains, WithoutATopTheIDBeginsWithTheHighestThatIsThere) {
  auto child = join(1);
  auto grandchild = join(2);
  EXPECT_TRUE(_daemon->waitForLog(fmt::format(
      "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): "
      "incomplete parentSessionID is '{}'",
      child.identifier)));
  child.sendAndFlush("child");
  grandchild.sendAndFlush("grandchild");
  EXPECT_EQ(textOf("child"), child.identifier);
  EXPECT_EQ(textOf("grandchild"), combined(child, grandchild));
}

TEST_F(Chains, AParentThatComesBackGivesItsChildANewID) {
  auto top = join(0);
  auto child = join(1);
  top.process().kill();
  ASSERT_TRUE(endMessageOfLevel(0));
  auto newTop = join(0);
  child.sendAndFlush("after");
  EXPECT_EQ(textOf("after"), combined(newTop, child));
}

// Two at one level

TEST_F(Chains, OfTwoAtOneLevelTheFirstIsTheParentAsLongAsItIsThere) {
  auto first = join(0);
  auto second = join(0);
  auto child = join(1);
  child.sendAndFlush("with both");
  EXPECT_EQ(textOf("with both"), combined(first, child));
  EXPECT_EQ(first.process().end(), 0);
  ASSERT_TRUE(endMessageOfLevel(0));
  child.sendAndFlush("nobody has told it");
  EXPECT_EQ(textOf("nobody has told it"), combined(first, child));
  auto laterChild = join(1);
  laterChild.sendAndFlush("joined later");
  EXPECT_EQ(textOf("joined later"), combined(second, laterChild));
  // Describing itself anew, the child finds the parent that is there now.
  EXPECT_EQ(child.fetchStates(ChainMember::userInfo("PLAYER")), "httpPost");
  child.sendAndFlush("told");
  EXPECT_EQ(textOf("told"), combined(second, child));
}

// Names

TEST_F(Chains, NamesThatDifferInCaseAreOneChain) {
  auto top = join({.level = 0, .clientName = "PLAYER", .serviceName = "film"});
  auto child = join({.level = 1, .clientName = "player", .serviceName = "FILM"});
  child.sendAndFlush("event");
  EXPECT_EQ(textOf("event"), combined(top, child));
  EXPECT_EQ(textOf("event", "_clientName"), "player");
}

TEST_F(Chains, NamesThatDifferAreTwoChains) {
  auto top = join(0);
  auto otherClient = join({.level = 1, .clientName = "Recorder"});
  auto otherService = join({.level = 1, .serviceName = "Radio"});
  otherClient.sendAndFlush("client");
  otherService.sendAndFlush("service");
  EXPECT_EQ(textOf("client"), otherClient.identifier);
  EXPECT_EQ(textOf("service"), otherService.identifier);
}

TEST_F(Chains, AParentThatChangesItsNameLeavesItsChildAndAdoptsAnother) {
  auto top = join(0);
  auto child = join(1);
  auto other = join({.level = 1, .clientName = "Recorder"});
  EXPECT_EQ(top.fetchStates(ChainMember::userInfo("Recorder")), "httpPost");
  for (ChainMember* each : {&top, &child, &other}) each->sendAndFlush(each->identifier);
  EXPECT_EQ(textOf(top.identifier), top.identifier);
  EXPECT_EQ(textOf(top.identifier, "_clientName"), "Recorder");
  EXPECT_EQ(textOf(child.identifier), combined(top, child)) << "as when it was last told";
  EXPECT_EQ(textOf(other.identifier), combined(top, other));
}

TEST_F(Chains, AChildThatChangesItsNameFindsItsNewParent) {
  auto top = join(0);
  auto otherTop = join({.level = 0, .clientName = "Recorder"});
  auto child = join(1);
  auto grandchild = join(2);
  EXPECT_EQ(child.fetchStates(ChainMember::userInfo("Recorder")), "httpPost");
  for (ChainMember* each : {&child, &grandchild}) each->sendAndFlush(each->identifier);
  EXPECT_EQ(textOf(child.identifier), combined(otherTop, child));
  EXPECT_EQ(textOf(grandchild.identifier), combined(top, child, grandchild));
  EXPECT_EQ(grandchild.fetchStates(ChainMember::userInfo("recorder")), "httpPost");
  grandchild.sendAndFlush("follows");
  EXPECT_EQ(textOf("follows"), combined(otherTop, child, grandchild));
}

TEST_F(Chains, AChildThatFindsNobodyUnderItsNewNameKeepsItsCombinedID) {
  auto top = join(0);
  auto child = join(1);
  EXPECT_EQ(child.fetchStates(ChainMember::userInfo("Nobody")), "httpPost");
  EXPECT_TRUE(_daemon->waitForLog(
      "syncReportingStates: child session 2 (backend httpPost) with hierarchy 1 is missing its "
      "parent"));
  child.sendAndFlush("event");
  EXPECT_EQ(textOf("event"), combined(top, child));
  EXPECT_EQ(textOf("event", "_clientName"), "Nobody");
}

}  // namespace
}  // namespace corvid
