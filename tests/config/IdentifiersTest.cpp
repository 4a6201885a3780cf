#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <memory>
#include <thread>
#include <vector>

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
  std::string ask(int number) {
    return getPersistentIdentifierForCustomClientIDSuffix(name, std::to_string(number));
  }
  std::string keyOf(int number) const { return "uuid:" + name + ":" + std::to_string(number); }

  const std::string name = std::string(4000, 'n');
  const int room = static_cast<int>(keptIdentifierBytes / (("uuid:" + name + ":00").size() + 96));
};

TEST_F(IdentifierRoom, IsFilledAndNotExceeded) {
  for (int number = 0; number < room; ++number) ask(number);
  EXPECT_TRUE(platform.log.texts(LogLevel::warning).empty());
  const std::string last = ask(room);
  EXPECT_EQ(platform.preferences->value("com.halcyon.corvid", keyOf(room)), std::nullopt);
  EXPECT_EQ(platform.log.texts(LogLevel::warning),
            std::vector<std::string>{"findOrMakeIdentifier: The identifier of " + keyOf(room) +
                                     " cannot be stored; it holds until corvidd ends"});
  EXPECT_EQ(ask(room), last);
  EXPECT_EQ(ask(0), "00000000-0000-0000-0000-000000000001");
}

TEST_F(IdentifierRoom, IsAsMuchAgainForThoseThatAreNotStored) {
  for (int number = 0; number < 2 * room; ++number) ask(number);
  const std::string last = ask(2 * room - 1);
  EXPECT_EQ(ask(2 * room - 1), last);
  platform.log.clear();
  const std::string beyond = ask(2 * room);
  EXPECT_EQ(
      platform.log.texts(LogLevel::warning),
      std::vector<std::string>{"findOrMakeIdentifier: Too many identifiers are kept; that of " +
                               keyOf(2 * room) + " is not"});
  EXPECT_NE(ask(2 * room), beyond);
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
