// Who meets whom in a chain: the sessions of one user, and across users those whose clients are
// both entitled to it.
#include <fmt/format.h>

#include <algorithm>

#include "base/Mutex.h"
#include "tests/daemon/AgentFixture.h"

namespace corvid {
namespace {

constexpr std::uint32_t victim = 1000;
constexpr std::uint32_t otherUser = 1001;

class ChainUsers : public AgentTest {
 protected:
  CorviddSession* parentOf(CorviddSession& session) {
    const RecursiveLock lock(agent->mutex());
    return agent->parentSessionForChild(session);
  }
  std::size_t delivered(CorviddSession& session, std::uint16_t category) {
    const auto deliveries = connectionOf(session).deliveries();
    return static_cast<std::size_t>(std::ranges::count_if(
        deliveries, [&](const auto& each) { return each.category == category; }));
  }
};

TEST_F(ChainUsers, AnotherUsersAggregatorGetsNothing) {
  becomeUser(otherUser);
  CorviddSession& listener = join(1, 0, true);
  becomeUser(victim);
  CorviddSession& session = join(2, 1);
  session.sendMessageWithCategory(40, 2, Dictionary{{"secret", 1}}, {});
  EXPECT_EQ(delivered(listener, 40), 0u);
  EXPECT_EQ(parentOf(session), nullptr);
}

TEST_F(ChainUsers, AnotherUsersSessionSilencesNobody) {
  becomeUser(victim);
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1, true);
  becomeUser(otherUser);
  join(3, 0, true);
  agent->updateDownstreamSessions(join(4, 0, true));
  EXPECT_TRUE(top.hasAggregator());
  EXPECT_EQ(parentOf(child), &top);
  child.sendMessageWithCategory(40, 2, std::nullopt, {});
  EXPECT_EQ(delivered(top, 40), 1u);
}

TEST_F(ChainUsers, AnEarlierSessionOfAnotherUserIsNobodysParent) {
  becomeUser(otherUser);
  join(1, 0);
  becomeUser(victim);
  CorviddSession& mine = join(2, 0);
  CorviddSession& child = join(3, 1);
  EXPECT_EQ(parentOf(child), &mine);
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), mine.sessionIDString());
}

TEST_F(ChainUsers, BothPeersNeedTheEntitlement) {
  for (const bool parentHasIt : {false, true}) {
    for (const bool childHasIt : {false, true}) {
      const std::string name = fmt::format("Player {}{}", parentHasIt, childHasIt);
      becomeUser(otherUser, parentHasIt);
      CorviddSession& parent = join(1, 0, true, name);
      becomeUser(victim, childHasIt);
      CorviddSession& child = join(2, 1, false, name);
      const bool meet = parentHasIt && childHasIt;
      EXPECT_EQ(parentOf(child), meet ? &parent : nullptr) << name;
      child.sendMessageWithCategory(40, 2, std::nullopt, {});
      EXPECT_EQ(delivered(parent, 40), meet ? 1u : 0u) << name;
    }
  }
}

TEST_F(ChainUsers, OneUsersSessionsMeetWhateverTheyAreEntitledTo) {
  becomeUser(victim, true);
  CorviddSession& parent = join(1, 0);
  becomeUser(victim);
  EXPECT_EQ(parentOf(join(2, 1)), &parent);
}

TEST_F(ChainUsers, AnEntitlementThatIsNoBooleanIsNone) {
  becomeUser(otherUser, true);
  join(1, 0);
  becomeUser(victim);
  const auto connection = newConnection();
  connection->entitlements.set("com.halcyon.private.corvidd.chains", 1);
  EXPECT_FALSE(connection->isEntitledTo("com.halcyon.private.corvidd.chains"));
}

}  // namespace
}  // namespace corvid
