#include <gtest/gtest.h>

#include "base/Reading.h"
#include "status/DecisionWatcher.h"
#include "status/Ledger.h"
#include "tests/fakes/FakeClock.h"

namespace corvid {
namespace {

class DecisionWatcherTest : public testing::Test {
 protected:
  std::shared_ptr<DecisionWatcher> watch(DecisionWatcher::Wishes wishes = {}) {
    const auto watcher = std::make_shared<DecisionWatcher>(wishes, [this] { ++woken; });
    ledger->watch(watcher);
    return watcher;
  }
  std::shared_ptr<LedgerAccount> accountOf(std::uint64_t session) {
    return std::make_shared<LedgerAccount>(ledger, session, "httpPost");
  }
  static std::string outcomeOf(const Dictionary& event) {
    return *stringAt(*arrayAt(event, "backends")->at(0).dictionary(), "outcome");
  }

  FakeClock clock;
  std::shared_ptr<Ledger> ledger = Ledger::create(clock);
  int woken = 0;
};

TEST_F(DecisionWatcherTest, HearsOfEachOutcomeWhenItIsDecided) {
  const auto watcher = watch();
  const auto account = accountOf(1);
  Shipment shipment;
  {
    const Ledger::Offer offer = ledger->offer({.session = 1});
    account->hold(offer.mark(), Reason::reporting, {}, nullptr);
    EXPECT_TRUE(watcher->take().empty()) << "not before all backends have decided";
    shipment = {};
    static_cast<void>(offer);
  }
  auto lines = watcher->take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(outcomeOf(lines[0]), "held");

  shipment = account->shipHeld({EventMark{1}});
  shipment.beginPost("a:443", 9);
  shipment.answered(200);
  lines = watcher->take();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(outcomeOf(lines[0]), "underWay");
  EXPECT_EQ(outcomeOf(lines[1]), "delivered");
  EXPECT_EQ(integerAt(lines[2], "status"), 200);
}

TEST_F(DecisionWatcherTest, IsWokenOnceUntilItTakesWhatWaits) {
  const auto watcher = watch();
  for (int i = 0; i < 3; ++i) ledger->drop({.session = 1}, Reason::noConsent);
  EXPECT_EQ(woken, 1);
  EXPECT_EQ(watcher->take().size(), 3u);
  ledger->drop({.session = 1}, Reason::noConsent);
  EXPECT_EQ(woken, 2);
}

TEST_F(DecisionWatcherTest, OfOneSessionHearsNothingOfOthers) {
  const auto watcher = watch({.session = 2});
  ledger->drop({.session = 1}, Reason::noConsent);
  ledger->drop({.session = 2}, Reason::noConsent);
  const auto lines = watcher->take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(integerAt(lines[0], "session"), 2);
}

TEST_F(DecisionWatcherTest, WhatItDoesNotTakeIsLostAndCountedAndTold) {
  const auto watcher = watch();
  for (std::size_t i = 0; i < DecisionWatcher::mostWaiting + 7; ++i)
    ledger->drop({.session = 1}, Reason::noConsent);
  const auto lines = watcher->take();
  ASSERT_EQ(lines.size(), DecisionWatcher::mostWaiting + 1);
  EXPECT_EQ(lines.back(), (Dictionary{{"lost", 7}}));
  EXPECT_EQ(ledger->totals().linesLost, 7u);
  ledger->drop({.session = 1}, Reason::noConsent);
  EXPECT_EQ(watcher->take().size(), 1u) << "what comes later is heard again";
}

TEST_F(DecisionWatcherTest, SeesRecordsOnlyWhereItWishes) {
  const auto blind = watch();
  EXPECT_FALSE(ledger->recordsAreWatched());
  {
    const auto seeing = watch({.records = true});
    EXPECT_TRUE(ledger->recordsAreWatched());
    const Dictionary record{{"n", 1}};
    {
      const Ledger::Offer offer = ledger->offer({.session = 1});
      accountOf(1)->hold(offer.mark(), Reason::reporting, {}, &record);
    }
    const auto verdict = [](const std::vector<Dictionary>& lines) {
      return *arrayAt(lines.at(0), "backends")->at(0).dictionary();
    };
    EXPECT_EQ(*dictionaryAt(verdict(seeing->take()), "record"), record);
    EXPECT_FALSE(verdict(blind->take()).contains("record"));
  }
  ledger->drop({.session = 1}, Reason::noConsent);
  EXPECT_FALSE(ledger->recordsAreWatched()) << "when the last of those who wish has gone";
}

TEST_F(DecisionWatcherTest, LargeRecordsThatItDoesNotTakeAreLost) {
  const auto watcher = watch({.records = true});
  const auto account = accountOf(1);
  const Dictionary record{{"text", std::string(std::size_t{1} << 20, 'x')}};
  for (int i = 0; i < 8; ++i) {
    const Ledger::Offer offer = ledger->offer({.session = 1});
    account->hold(offer.mark(), Reason::reporting, {}, &record);
  }
  const auto lines = watcher->take();
  EXPECT_EQ(lines.size(), 4u);
  EXPECT_EQ(integerAt(lines.back(), "lost"), 5);
}

}  // namespace
}  // namespace corvid
