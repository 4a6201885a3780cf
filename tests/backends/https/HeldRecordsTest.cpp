#include <gtest/gtest.h>

#include "backends/https/HeldRecords.h"
#include "base/Reading.h"
#include "tests/fakes/FakeClock.h"

namespace corvid {
namespace {

Dictionary recordOf(std::int64_t number) { return {{"n", number}}; }
Dictionary recordOf(std::int64_t number, std::size_t textBytes) {
  return {{"n", number}, {"text", std::string(textBytes, 'x')}};
}

std::vector<std::int64_t> numbersOf(std::vector<Dictionary> records) {
  std::vector<std::int64_t> numbers;
  for (const Dictionary& record : records) numbers.push_back(*record.find("n")->integer());
  return numbers;
}

using Numbers = std::vector<std::int64_t>;

const HeldRecords::Making noUserInfo{nullptr, std::make_shared<const EventFilters>()};

std::vector<Dictionary> takenFrom(HeldRecords& held) {
  std::vector<EventRecord> taken;
  held.takeInto(taken);
  std::vector<Dictionary> records;
  for (const EventRecord& record : taken) records.push_back(record.copy());
  return records;
}

struct HeldRecordsTest : testing::Test {
  void add(HeldRecords& held, Dictionary record, const HeldRecords::Making& making = noUserInfo) {
    const std::size_t bytes = footprint(record);
    account->hold({}, Reason::reporting, {}, nullptr);
    held.add(std::move(record), bytes, making, {});
  }
  std::uint64_t dropped(Reason reason) const {
    return account->balance().dropped[static_cast<std::size_t>(reason)];
  }

  FakeClock clock;
  std::shared_ptr<LedgerAccount> account =
      std::make_shared<LedgerAccount>(Ledger::create(clock), 1, "httpPost");
};

HeldRecords::Making makingOf(Dictionary userInfo, Array filters = {}) {
  return {std::make_shared<const Dictionary>(std::move(userInfo)),
          std::make_shared<const EventFilters>(filters)};
}

TEST_F(HeldRecordsTest, KeepsTheOrder) {
  HeldRecords held(Budgets().kept->none(1), account);
  for (int i = 1; i <= 3; ++i) add(held, recordOf(i));
  EXPECT_EQ(held.dropped(), 0u);
  EXPECT_EQ(numbersOf(takenFrom(held)), (Numbers{1, 2, 3}));
}

TEST_F(HeldRecordsTest, PastTheRecordLimitTheOldestGo) {
  HeldRecords held(Budgets().kept->none(1), account);
  const auto limit = static_cast<std::int64_t>(HeldRecords::recordLimit);
  for (std::int64_t i = 0; i < limit; ++i) add(held, recordOf(i));
  EXPECT_TRUE(held.overflowsWith(footprint(recordOf(limit))));
  EXPECT_EQ(held.dropped(), 0u);
  add(held, recordOf(limit));
  add(held, recordOf(limit + 1));
  EXPECT_EQ(held.dropped(), 2u);
  EXPECT_EQ(held.size(), HeldRecords::recordLimit);
  const Numbers numbers = numbersOf(takenFrom(held));
  EXPECT_EQ(numbers.front(), 2);
  EXPECT_EQ(numbers.back(), limit + 1);
}

TEST_F(HeldRecordsTest, PastTheByteLimitTheOldestGo) {
  HeldRecords held(Budgets().kept->none(1), account);
  const std::size_t third = HeldRecords::byteLimit / 3;
  for (int i = 1; i <= 2; ++i) add(held, recordOf(i, third));
  EXPECT_FALSE(held.overflowsWith(footprint(recordOf(3))));
  EXPECT_TRUE(held.overflowsWith(footprint(recordOf(3, third))));
  add(held, recordOf(3, 2 * third));
  EXPECT_EQ(held.dropped(), 2u) << "as many as it takes";
  EXPECT_EQ(numbersOf(takenFrom(held)), Numbers{3});
}

TEST_F(HeldRecordsTest, ARecordPastTheByteLimitIsHeldAlone) {
  HeldRecords held(Budgets().kept->none(1), account);
  const Dictionary huge = recordOf(2, 2 * HeldRecords::byteLimit);
  EXPECT_FALSE(held.overflowsWith(footprint(huge))) << "nothing would be dropped for it";
  add(held, recordOf(1));
  add(held, huge);
  EXPECT_EQ(held.size(), 1u);
  add(held, recordOf(3));
  EXPECT_EQ(numbersOf(takenFrom(held)), Numbers{3});
}

TEST_F(HeldRecordsTest, GivesBackTheBytesOfWhatItDrops) {
  HeldRecords held(Budgets().kept->none(1), account);
  for (int i = 0; i < 100; ++i) add(held, recordOf(i, HeldRecords::byteLimit / 4));
  EXPECT_EQ(held.size(), 3u) << "as many as fit, however many came before";
}

TEST_F(HeldRecordsTest, RewritesAKeyOfEveryRecord) {
  HeldRecords held(Budgets().kept->none(1), account);
  add(held, recordOf(1));
  add(held, {{"n", 2}, {"_sessionID", "old"}});
  held.setForAll("_sessionID", "new");
  const auto records = takenFrom(held);
  EXPECT_EQ(records.size(), 2u);
  for (const Dictionary& record : records) EXPECT_EQ(*stringAt(record, "_sessionID"), "new");
}

TEST_F(HeldRecordsTest, MakesRoomForWhatEachIsAboutToGetByDroppingTheOldest) {
  const auto userInfoOf = [](std::size_t bytes) {
    return makingOf({{"text", std::string(bytes, 'u')}});
  };
  HeldRecords held(Budgets().kept->none(1), account);
  for (int i = 1; i <= 8; ++i) add(held, recordOf(i));
  held.addUserInfo(userInfoOf(HeldRecords::messageByteLimit / 16));
  EXPECT_EQ(held.dropped(), 0u);
  held.addUserInfo(userInfoOf(HeldRecords::messageByteLimit * 10 / 39));
  EXPECT_EQ(held.dropped(), 5u);
  EXPECT_EQ(numbersOf(takenFrom(held)), (Numbers{6, 7, 8}));
}

TEST_F(HeldRecordsTest, GiveTheUserInfoOfTheFlushToRecordsWithAnother) {
  const auto now = makingOf({{"who", "now"}});
  for (const auto& before : {noUserInfo, makingOf({{"who", "before"}}), makingOf({{"who", "now"}}),
                             HeldRecords::Making{now.userInfo, noUserInfo.filters}}) {
    HeldRecords held(Budgets().kept->none(1), account);
    add(held, {{"n", 1}, {"who", "old"}}, before);
    held.addUserInfo(now);
    EXPECT_EQ(takenFrom(held), std::vector<Dictionary>(1, {{"n", 1}, {"who", "now"}}));
  }
}

TEST_F(HeldRecordsTest, GiveTheUserInfoToAllWhereOnlySomeHaveIt) {
  const auto now = makingOf({{"who", "now"}});
  for (const bool hasItFirst : {true, false}) {
    HeldRecords held(Budgets().kept->none(1), account);
    add(held, {{"who", "old"}}, hasItFirst ? now : noUserInfo);
    add(held, {{"who", "old"}}, hasItFirst ? noUserInfo : now);
    held.addUserInfo(now);
    EXPECT_EQ(takenFrom(held), std::vector<Dictionary>(2, {{"who", "now"}}));
  }
}

TEST_F(HeldRecordsTest, LeaveRecordsAloneThatHaveJustThisUserInfo) {
  const auto making = makingOf({{"who", "now"}}, Array{Dictionary{{"key", "who"}}});
  HeldRecords held(Budgets().kept->none(1), account);
  add(held, {{"who", "as it was made"}}, making);
  held.addUserInfo(making);
  EXPECT_EQ(takenFrom(held), std::vector<Dictionary>(1, {{"who", "as it was made"}}));
}

TEST_F(HeldRecordsTest, GiveTheUserInfoAgainWhereAFilterLookedAtTheMethodOrARecordWasRewritten) {
  for (const char* condition : {"method", "status"}) {
    const auto making =
        makingOf({{"who", "now"}}, Array{Dictionary{{"key", "WHO"}, {condition, 3}}});
    HeldRecords held(Budgets().kept->none(1), account);
    add(held, {{"n", 1}}, making);
    held.addUserInfo(making);
    EXPECT_EQ(takenFrom(held), std::vector<Dictionary>(1, {{"n", 1}, {"who", "now"}})) << condition;
  }
  const auto making = makingOf({{"_sessionID", "mine"}});
  HeldRecords held(Budgets().kept->none(1), account);
  add(held, {{"_sessionID", "mine"}}, making);
  held.setForAll("_sessionID", "new");
  held.addUserInfo(making);
  EXPECT_EQ(takenFrom(held), std::vector<Dictionary>(1, {{"_sessionID", "mine"}}));
}

TEST_F(HeldRecordsTest, WhatTheUserHasNoMemoryForPushesOutTheOldest) {
  const auto budget = std::make_shared<SharedBudget>(150'000);
  HeldRecords held(budget->none(1), account);
  const std::string text(20'000, 'x');
  const std::size_t bytes = footprint(Dictionary{{"n", 1}, {"text", text}});
  for (int i = 1; i <= 6; ++i) add(held, Dictionary{{"n", i}, {"text", text}});
  EXPECT_LE(held.size() * bytes, 100'000u);
  EXPECT_EQ(held.dropped() + held.size(), 6u);
  EXPECT_TRUE(held.overflowsWith(bytes));
  EXPECT_FALSE(held.exceedsMemory());
  EXPECT_EQ(numbersOf(takenFrom(held)).back(), 6);
}

TEST_F(HeldRecordsTest, ARecordThatThereIsNoMemoryForIsHeldAloneAndSaysSo) {
  const auto budget = std::make_shared<SharedBudget>(1000);
  const auto others = budget->take(1, 1000);
  HeldRecords held(budget->none(1), account);
  add(held, recordOf(1));
  EXPECT_TRUE(held.exceedsMemory());
  EXPECT_EQ(held.size(), 1u);
}

TEST_F(HeldRecordsTest, WhatIsPushedOutAndWhatIsLeftBehindIsBooked) {
  {
    HeldRecords held(Budgets().kept->none(1), account);
    for (int i = 1; i <= 4; ++i) add(held, recordOf(i));
    held.dropOldest();
    EXPECT_EQ(dropped(Reason::overLimit), 1u);
    EXPECT_EQ(account->balance().held, 3u);
    std::vector<EventRecord> records;
    const Shipment taken = held.takeInto(records);
    EXPECT_EQ(taken.size(), 3u);
    EXPECT_EQ(account->balance().underWay, 3u);
    add(held, recordOf(5));
  }
  EXPECT_EQ(dropped(Reason::notFlushed), 4u) << "one of them in the batch";
  EXPECT_TRUE(account->balance().adds());
}

}  // namespace
}  // namespace corvid
