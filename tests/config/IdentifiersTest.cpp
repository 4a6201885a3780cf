#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "base/ActingUser.h"
#include "config/Identifiers.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

struct Identifiers : testing::Test {
  TestPlatform platform;
};

TEST_F(Identifiers, AreRandomUUIDsInCanonicalForm) {
  EXPECT_EQ(getPersistentIdentifierForCustomClientIDSuffix("a", "b"),
            "00000000-0000-0000-0000-000000000001");
}

TEST_F(Identifiers, AreKeptUnderBothParts) {
  const std::string identifier = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", "uuid:a:b"), Value(identifier));
}

TEST_F(Identifiers, StayTheSameAcrossRestarts) {
  const std::string identifier = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  platform.restart();
  EXPECT_EQ(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), identifier);
}

TEST_F(Identifiers, AStoredOneIsUsedAsItStands) {
  platform.preferences->setValue("com.halcyon.corvid", "uuid:a:b", "anything at all");
  EXPECT_EQ(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), "anything at all");
}

TEST_F(Identifiers, AreMadeAnewWhenTheEntryIsRemoved) {
  const std::string identifier = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  platform.preferences->removeValue("com.halcyon.corvid", "uuid:a:b");
  EXPECT_NE(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), identifier);
}

TEST_F(Identifiers, AnEntryOfAnotherTypeCountsAsAbsent) {
  for (const Value& wrong : {Value(7), Value(0.5), Value(true), Value(Date{7}), Value(Data{"x"}),
                             Value(Array{"x"}), Value(Dictionary{{"x", "x"}})}) {
    platform.preferences->setValue("com.halcyon.corvid", "uuid:a:b", wrong);
    const std::string made = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
    EXPECT_EQ(made.size(), 36u);
    EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", "uuid:a:b"), Value(made));
  }
}

TEST_F(Identifiers, DifferByTheCaseOfTheirParts) {
  const std::string identifier = getPersistentIdentifierForCustomClientIDSuffix("A", "b");
  EXPECT_NE(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), identifier);
  EXPECT_EQ(getPersistentIdentifierForCustomClientIDSuffix("A", "b"), identifier);
}

TEST_F(Identifiers, AbsentPartsAreEmptyInTheKey) {
  const std::string none = getPersistentIdentifierForCustomClientIDSuffix({}, {});
  const std::string first = getPersistentIdentifierForCustomClientIDSuffix("a", {});
  const std::string second = getPersistentIdentifierForCustomClientIDSuffix({}, "a");
  EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", "uuid::"), Value(none));
  EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", "uuid:a:"), Value(first));
  EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", "uuid::a"), Value(second));
}

TEST_F(Identifiers, AreLoggedWithTheirKeyWhetherMadeOrFound) {
  getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  EXPECT_EQ(platform.log.lines().size(), 2u);
  EXPECT_EQ(platform.log.count(LogLevel::info,
                               "getPersistentIdentifierForCustomClientIDSuffix: The value for "
                               "uuid:a:b: 00000000-0000-0000-0000-000000000001"),
            2);
}

TEST_F(Identifiers, ThatCannotBeStoredHoldUntilTheProcessEnds) {
  platform.preferences->isWritable = false;
  const std::string identifier = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  EXPECT_EQ(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), identifier);
  EXPECT_NE(getPersistentIdentifierForCustomClientIDSuffix("a", "c"), identifier);
  EXPECT_EQ(platform.log.count(LogLevel::warning,
                               "findOrMakeIdentifier: The identifier of uuid:a:b cannot be stored; "
                               "it holds until corvidd ends"),
            1);
  platform.restart();
  EXPECT_NE(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), identifier);
}

TEST_F(Identifiers, AreStoredAsSoonAsTheyCanBe) {
  platform.preferences->isWritable = false;
  const std::string identifier = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  platform.preferences->isWritable = true;
  EXPECT_EQ(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), identifier);
  EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", "uuid:a:b"), Value(identifier));
  platform.preferences->removeValue("com.halcyon.corvid", "uuid:a:b");
  EXPECT_NE(getPersistentIdentifierForCustomClientIDSuffix("a", "b"), identifier);
}

class IdentifierRoom : public Identifiers {
 protected:
  // Asked for by a client of `user`, in no hurry.
  std::string ask(int number, User user = 1000) {
    platform.clock->advance(std::chrono::seconds(1));
    const ActingFor acting(user);
    return getPersistentIdentifierForCustomClientIDSuffix(name, std::to_string(number));
  }
  std::string keyOf(int number) const { return "uuid:" + name + ":" + std::to_string(number); }
  bool isStored(int number) const {
    return platform.preferences->value(corvidSuite, keyOf(number)).has_value();
  }
  int stored() const {
    const auto keys = platform.preferences->keys(corvidSuite);
    return static_cast<int>(std::ranges::count_if(
        keys, [](const std::string& key) { return key.starts_with("uuid:"); }));
  }

  const std::string name = std::string(4000, 'n');
  const int room = static_cast<int>(keptIdentifierBytes / (("uuid:" + name + ":000").size() + 96));
};

TEST_F(IdentifierRoom, IsFilledByOneUserAndNotExceeded) {
  for (int number = 100; number < 100 + room; ++number) ask(number);
  EXPECT_EQ(stored(), room);
  ask(100);
  ask(500);
  EXPECT_EQ(stored(), room);
  EXPECT_TRUE(isStored(500));
  EXPECT_TRUE(isStored(100)) << "used a moment ago";
  EXPECT_FALSE(isStored(101)) << "the least recently used";
  EXPECT_TRUE(isStored(102));
  EXPECT_TRUE(platform.log.texts(LogLevel::warning).empty());
}

TEST_F(IdentifierRoom, MadeUpNamesTakeNoneOfAnotherUsers) {
  const std::string victims = ask(100, 1000);
  for (int number = 200; number < 200 + 2 * room; ++number) ask(number, 1001);
  EXPECT_EQ(ask(100, 1000), victims);
  EXPECT_TRUE(isStored(100));
  const std::string later = ask(101, 1000);
  EXPECT_TRUE(isStored(101)) << "there is always room for those who have little";
  EXPECT_EQ(ask(101, 1000), later);
}

TEST_F(IdentifierRoom, AfterARestartEachUserHasWhatWasTheirs) {
  const std::string victims = ask(100, 1000);
  for (int number = 200; number < 200 + room; ++number) ask(number, 1001);
  platform.restart();
  for (int number = 500; number < 500 + 2 * room; ++number) ask(number, 1001);
  EXPECT_EQ(ask(100, 1000), victims);
  EXPECT_EQ(stored(), room);
}

TEST_F(IdentifierRoom, OneThatIsAnothersTooStaysWithTheOther) {
  const std::string shared = ask(100, 1000);
  EXPECT_EQ(ask(100, 1001), shared);
  for (int number = 200; number < 200 + 2 * room; ++number) ask(number, 1001);
  EXPECT_EQ(ask(100, 1000), shared);
}

TEST_F(IdentifierRoom, ThoseOfNobodyWhoIsKnownCountToo) {
  for (int number = 100; number < 100 + 2 * room; ++number)
    platform.preferences->setValue(corvidSuite, keyOf(number), "from before");
  EXPECT_EQ(ask(100, 1000), "from before");
  ask(900, 1000);
  EXPECT_EQ(stored(), room);
  EXPECT_TRUE(isStored(100));
  EXPECT_TRUE(isStored(900));
}

TEST_F(IdentifierRoom, AStrangeRecordOfWhoseTheyAreIsPassedOver) {
  platform.preferences->setValue(
      "com.halcyon.corvid.identifiers", "Uses",
      Array{7, "no blank", "", "x " + keyOf(100), "1000 uuid:unknown:", "99999999999 x"});
  platform.preferences->setValue(corvidSuite, keyOf(100), "from before");
  EXPECT_EQ(ask(100), "from before");
  EXPECT_EQ(stored(), 1);
}

TEST_F(IdentifierRoom, IsAsMuchAgainForThoseThatAreNotStored) {
  platform.preferences->isWritable = false;
  const std::string victims = ask(100, 1000);
  std::string latest;
  for (int number = 200; number < 200 + 2 * room; ++number) latest = ask(number, 1001);
  EXPECT_EQ(ask(199 + 2 * room, 1001), latest);
  EXPECT_EQ(ask(100, 1000), victims);
}

TEST_F(IdentifierRoom, NamesMadeUpInAHurryWaitInMemoryAndAreStoredLater) {
  const ActingFor acting(1001);
  const auto askNow = [](int number) {
    return getPersistentIdentifierForCustomClientIDSuffix("name", std::to_string(number));
  };
  for (int number = 0; number < 200; ++number) askNow(number);
  EXPECT_EQ(stored(), 64);
  const std::string last = askNow(199);
  EXPECT_TRUE(platform.log.texts(LogLevel::warning).empty());
  platform.clock->advance(std::chrono::seconds(1));
  EXPECT_EQ(askNow(199), last);
  EXPECT_EQ(platform.preferences->value(corvidSuite, "uuid:name:199"), Value(last));
  const ActingFor another(1000);
  askNow(300);
  EXPECT_EQ(stored(), 66) << "others need not wait";
}

TEST_F(IdentifierRoom, ANameThatIsTooLongIsKeptNowhere) {
  const std::string large(keptIdentifierBytes, 'x');
  const std::string first = getPersistentIdentifierForCustomClientIDSuffix(large, {});
  EXPECT_NE(getPersistentIdentifierForCustomClientIDSuffix(large, {}), first);
  EXPECT_EQ(stored(), 0);
  EXPECT_TRUE(platform.log.anyContains("The name is too long for its identifier to be kept"));
}

TEST_F(Identifiers, WhereOnePartEndsIsNeverInDoubt) {
  const std::vector<std::pair<std::string, std::string>> parts{
      {"a:b", "c"},  {"a", "b:c"}, {"a\\", "b"}, {"a", "\\b"},
      {"a\\:b", ""}, {"a", ":b"},  {"a:", "b"}};
  std::set<std::string> seen;
  for (const auto& [first, second] : parts)
    seen.insert(getPersistentIdentifierForCustomClientIDSuffix(first, second));
  EXPECT_EQ(seen.size(), parts.size());
  EXPECT_TRUE(platform.preferences->value(corvidSuite, "uuid:a\\:b:c"));
  EXPECT_TRUE(platform.preferences->value(corvidSuite, "uuid:a\\\\:b"));
}

TEST_F(Identifiers, ShareTheirRoomWithNoOtherPreference) {
  platform.preferences->setValue("com.halcyon.corvid", std::string(keptIdentifierBytes, 'x'), 1);
  const std::string identifier = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", "uuid:a:b"), Value(identifier));
}

// Holds the first readers back until there are two of them: both find nothing.
class MeetingPreferences final : public Preferences {
 public:
  std::optional<Value> value(std::string_view suite, std::string_view key) override {
    auto found = kept.value(suite, key);
    if (readers++ < 2) meeting.arrive_and_wait();
    return found;
  }
  bool setValue(std::string_view suite, std::string_view key, Value value) override {
    return kept.setValue(suite, key, std::move(value));
  }
  bool removeValue(std::string_view suite, std::string_view key) override {
    return kept.removeValue(suite, key);
  }
  std::vector<std::string> keys(std::string_view suite) override { return kept.keys(suite); }

  FakePreferences kept;
  std::atomic<int> readers{0};
  std::barrier<> meeting{2};
};

TEST_F(Identifiers, ThreadsThatMeetAtTheFirstUseGetTheSame) {
  const auto preferences = std::make_shared<MeetingPreferences>();
  Platform::Services services;
  services.preferences = preferences;
  services.random = platform.random;
  services.clock = platform.clock;
  Platform meeting(std::move(services));
  Platform::install(&meeting);
  std::string other;
  std::thread thread([&] { other = getPersistentIdentifierForCustomClientIDSuffix("a", "b"); });
  const std::string mine = getPersistentIdentifierForCustomClientIDSuffix("a", "b");
  thread.join();
  EXPECT_EQ(mine, other);
  EXPECT_EQ(preferences->kept.value(corvidSuite, "uuid:a:b"), Value(mine));
}

std::string keyOf(const Dictionary& userInfo) { return clientKey(&userInfo); }

TEST(ClientKey, JoinsTheLowerCasedNames) {
  EXPECT_EQ(keyOf({{"_clientName", "Foo"}, {"_serviceName", "BAR"}}), "foo:bar");
  EXPECT_EQ(keyOf({{"_clientName", "\xC3\x84"}, {"_serviceName", "\xCE\xA3"}}),
            "\xC3\xA4:\xCF\x83");
}

TEST(ClientKey, AbsentNamesAreEmpty) {
  EXPECT_EQ(keyOf({{"_clientName", "Foo"}}), "foo:");
  EXPECT_EQ(keyOf({{"_serviceName", "Bar"}}), ":bar");
  EXPECT_EQ(keyOf({}), ":");
  EXPECT_EQ(clientKey(nullptr), ":");
}

TEST(ClientKey, NamesOfAnotherTypeCountAsAbsent) {
  EXPECT_EQ(keyOf({{"_clientName", 7}, {"_serviceName", Array{"Bar"}}}), ":");
}

}  // namespace
}  // namespace corvid
