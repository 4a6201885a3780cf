// Clients that take the place of another user's parent: client and service names are what clients
// say of themselves.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

// Of the levels 0 and 1.
constexpr int parentType = 8;
constexpr int childType = 9;

const Dictionary victimsNames{{"_clientName", "Player"}, {"_serviceName", "Film"}};

// Counts what the daemon delivers of a client's events.
class Listener final : public wire::ClientSessionReply::Server {
 public:
  explicit Listener(int& heard) : _heard(heard) {}
  kj::Promise<void> sendMessagesToClient(SendMessagesToClientContext context) override {
    for (const wire::Delivery::Reader delivery : context.getParams().getDeliveries())
      _heard += delivery.getCategory() == 7 ? 1 : 0;
    return kj::READY_NOW;
  }

 private:
  int& _heard;
};

class ChainAttacks : public AttackFixture {
 protected:
  void SetUp() override {
    AttackFixture::SetUp();
    publishLevel("orrery", 0);
    publishLevel("cadence", 1);
  }
  void publishLevel(const std::string& name, int level) {
    Dictionary entry = admitsEverybody();
    entry.set("hierarchy", level);
    publish(name, storebagPostingTo(urlOf("events"), entry));
  }
  // Everybody who may connect may also meet other users.
  void letUsersMeet() const {
    for (const uid_t user : {getuid(), attacker})
      _root.write(fmt::format("etc/corvid/entitlements.d/zz-{}.plist", user),
                  writeXMLPropertyList(Dictionary{
                      {"match", Dictionary{{"user", fmt::format("{}", user)}}},
                      {"entitlements", Dictionary{{"com.halcyon.private.corvidd.chains", true}}}}));
  }
  std::unique_ptr<WireClient> listeningParent() {
    auto parent = wireClient(attacker, kj::heap<Listener>(heard));
    configure(*parent, parentType, victimsNames, true);
    return parent;
  }
  // The victim, which the attacker's client cannot but know the names of.
  std::string configureVictim() {
    return victim
        .configure({.clientType = childType, .clientName = "Player", .serviceName = "Film"})
        .text();
  }
  // The combined ID of the victim's record with that mark, once it has arrived.
  std::string sendAsVictim(const std::string& mark) {
    EXPECT_EQ(victim.send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << mark;
    for (const Dictionary& record : records())
      if (textAt(record, "mark") == mark) return *stringAt(record, "_sessionID");
    return "no record";
  }
  // What is on its way to the client has come once a call is answered that was made after it left.
  static void hearAll(WireClient& client) {
    for (int i = 0; i < 3; ++i) client.session.fetchDisplayURLRequest().send().wait(client.scope);
  }

  int heard = 0;
  TestClient victim{_root.path()};
};

TEST_F(ChainAttacks, AnotherUsersParentHearsNothingAndIsNoPartOfTheID) {
  const auto parent = listeningParent();
  ASSERT_EQ(configureVictim(), "httpPost");
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(sendAsVictim(fmt::format("secret {}", i)).find('.'), std::string::npos);
  hearAll(*parent);
  EXPECT_EQ(heard, 0);
}

TEST_F(ChainAttacks, AnotherUsersParentWithoutABackendTakesNoneFromTheVictim) {
  publish("orrery",
          {{"version", "7"},
           {"refresh_cycle", 3600},
           {"release", Dictionary{{"uploadServer", Dictionary{{"post_url", urlOf("upload")}}}}}});
  const auto parent = wireClient(attacker);
  configure(*parent, parentType, victimsNames);
  EXPECT_EQ(configureVictim(), "httpPost");
  sendAsVictim("before");
  configure(*parent, parentType, victimsNames);  // which tells all below it anew
  sendAsVictim("after");
}

TEST_F(ChainAttacks, UsersWhoAreBothEntitledToItDoMeet) {
  letUsersMeet();
  const auto parent = listeningParent();
  ASSERT_EQ(configureVictim(), "httpPost");
  EXPECT_NE(sendAsVictim("shared").find('.'), std::string::npos);
  EXPECT_TRUE(waitUntil([&] {
    hearAll(*parent);
    return heard == 1;
  }));
}

TEST_F(ChainAttacks, OneWithoutTheEntitlementMeetsNobodyWhoHasIt) {
  letUsersMeet();
  _root.remove(fmt::format("etc/corvid/entitlements.d/zz-{}.plist", attacker));
  const auto parent = listeningParent();
  ASSERT_EQ(configureVictim(), "httpPost");
  EXPECT_EQ(sendAsVictim("secret").find('.'), std::string::npos);
  hearAll(*parent);
  EXPECT_EQ(heard, 0);
}

}  // namespace
}  // namespace corvid
