#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "base/Reading.h"
#include "status/Ledger.h"
#include "tests/fakes/FakeClock.h"

namespace corvid {
namespace {

class LedgerTest : public testing::Test {
 protected:
  std::shared_ptr<LedgerAccount> accountOf(std::uint64_t session,
                                           const char* backend = "httpPost") {
    return std::make_shared<LedgerAccount>(ledger, session, backend);
  }
  std::uint64_t dropped(Reason reason) const {
    return ledger->totals().balance.dropped[static_cast<std::size_t>(reason)];
  }
  Dictionary latest() const { return ledger->latest(1, std::nullopt).at(0); }
  // What stands of an event at its `at`th backend.
  static const Dictionary& verdictOf(const Dictionary& event, std::size_t at = 0) {
    return *arrayAt(event, "backends")->at(at).dictionary();
  }
  static std::string outcomeOf(const Dictionary& event, std::size_t at = 0) {
    return *stringAt(verdictOf(event, at), "outcome");
  }
  static std::string reasonOf(const Dictionary& event, std::size_t at = 0) {
    return *stringAt(verdictOf(event, at), "reason");
  }

  FakeClock clock;
  std::shared_ptr<Ledger> ledger = Ledger::create(clock);
  std::shared_ptr<LedgerAccount> account = accountOf(1);
};

TEST_F(LedgerTest, TellsWhyNobodyTookAnEventWhereNobodyDid) {
  const auto other = accountOf(1, "dashboard");
  {
    const Ledger::Offer taken = ledger->offer({.session = 1});
    EXPECT_EQ(taken.whyNobodyTookIt(), std::nullopt) << "nobody was asked yet";
    account->drop(taken.mark(), Reason::noConsent);
    EXPECT_EQ(taken.whyNobodyTookIt(), Reason::noConsent);
    other->hold(taken.mark(), Reason::reporting, {}, nullptr);
    EXPECT_EQ(taken.whyNobodyTookIt(), std::nullopt);
  }
  {
    const Ledger::Offer refused = ledger->offer({.session = 1});
    other->drop(refused.mark(), Reason::takesNoEvents);
    EXPECT_EQ(refused.whyNobodyTookIt(), Reason::takesNoEvents);
    account->drop(refused.mark(), Reason::sampledOut);
    EXPECT_EQ(refused.whyNobodyTookIt(), Reason::sampledOut) << "the one that takes events";
  }
  const Ledger::Offer toNobody = ledger->offer({.session = 1});
  toNobody.drop(Reason::noBackendMade);
  EXPECT_EQ(toNobody.whyNobodyTookIt(), Reason::noBackendMade);
  for (std::size_t i = 0; i < Ledger::remembered; ++i) ledger->drop({}, Reason::notConfigured);
  EXPECT_EQ(toNobody.whyNobodyTookIt(), std::nullopt) << "remembered no more";
}

TEST_F(LedgerTest, AnEventCountsOnceForEachBackendThatItWasOfferedTo) {
  const auto other = accountOf(1, "dashboard");
  {
    const Ledger::Offer offer = ledger->offer({.session = 1, .category = 7, .type = 2, .flag = 1});
    account->hold(offer.mark(), Reason::reporting, {}, nullptr);
    other->drop(offer.mark(), Reason::takesNoEvents);
  }
  const Balance balance = ledger->totals().balance;
  EXPECT_EQ(balance.accepted, 2u);
  EXPECT_EQ(balance.held, 1u);
  EXPECT_EQ(dropped(Reason::takesNoEvents), 1u);
  EXPECT_TRUE(balance.adds());
  EXPECT_EQ(account->balance().accepted, 1u);
  EXPECT_EQ(other->balance().accepted, 1u);

  const Dictionary event = latest();
  EXPECT_EQ(integerAt(event, "event"), 1);
  EXPECT_EQ(integerAt(event, "session"), 1);
  EXPECT_EQ(integerAt(event, "category"), 7);
  EXPECT_EQ(integerAt(event, "type"), 2);
  EXPECT_EQ(integerAt(event, "flag"), 1);
  EXPECT_EQ(*stringAt(verdictOf(event, 0), "name"), "httpPost");
  EXPECT_EQ(outcomeOf(event, 0), "held");
  EXPECT_EQ(reasonOf(event, 0), "reporting");
  EXPECT_EQ(*stringAt(verdictOf(event, 1), "name"), "dashboard");
  EXPECT_EQ(outcomeOf(event, 1), "dropped");
  EXPECT_EQ(reasonOf(event, 1), "takesNoEvents");
}

TEST_F(LedgerTest, AnEventThatMeetsNoBackendCountsOnceUnderTheReason) {
  ledger->drop({.session = 3, .category = 1}, Reason::notConfigured);
  EXPECT_EQ(ledger->totals().balance.accepted, 1u);
  EXPECT_EQ(dropped(Reason::notConfigured), 1u);
  const Dictionary event = latest();
  EXPECT_TRUE(arrayAt(event, "backends")->empty());
  EXPECT_EQ(*stringAt(event, "outcome"), "dropped");
  EXPECT_EQ(*stringAt(event, "reason"), "notConfigured");
}

TEST_F(LedgerTest, HeldEventsLeaveTogetherAndArriveTogether) {
  std::vector<EventMark> marks;
  for (int i = 0; i < 3; ++i) {
    const Ledger::Offer offer = ledger->offer({.session = 1});
    account->hold(offer.mark(), Reason::waitingForUserInfo, {}, nullptr);
    marks.push_back(offer.mark());
  }
  Shipment shipment = account->shipHeld(marks);
  EXPECT_EQ(account->balance().held, 0u);
  EXPECT_EQ(account->balance().underWay, 3u);
  shipment.beginPost("localhost:8443", 2411);
  clock.advance(std::chrono::milliseconds(4));
  shipment.answered(204);

  EXPECT_EQ(account->balance().delivered, 3u);
  EXPECT_TRUE(ledger->totals().balance.adds());
  const auto decisions = ledger->latest(10, std::nullopt);
  ASSERT_EQ(decisions.size(), 4u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(outcomeOf(decisions[static_cast<std::size_t>(i)]), "delivered");
    EXPECT_EQ(reasonOf(decisions[static_cast<std::size_t>(i)]), "reporting");
    EXPECT_EQ(integerAt(verdictOf(decisions[static_cast<std::size_t>(i)]), "post"), 1);
  }
  const Dictionary& post = decisions[3];
  EXPECT_EQ(integerAt(post, "post"), 1);
  EXPECT_EQ(integerAt(post, "events"), 3);
  EXPECT_EQ(integerAt(post, "bytes"), 2411);
  EXPECT_EQ(integerAt(post, "status"), 204);
  EXPECT_EQ(post.find("milliseconds")->real(), 4.0);
  EXPECT_TRUE(post.find("error")->isNull());
  EXPECT_EQ(*stringAt(post, "backend"), "httpPost");
  EXPECT_EQ(ledger->totals().hosts.at("localhost:8443").delivered, 3u);
}

TEST_F(LedgerTest, EveryStatusBut2xxIsRefusedUnderItsNumber) {
  for (const int status : {200, 299, 304, 404, 503}) {
    const Ledger::Offer offer = ledger->offer({.session = 1});
    Shipment shipment = account->ship(offer.mark(), {}, nullptr);
    shipment.beginPost("a:443", 1);
    shipment.answered(status);
  }
  const Ledger::Totals totals = ledger->totals();
  EXPECT_EQ(totals.balance.delivered, 2u);
  EXPECT_EQ(totals.balance.refused, (std::map<int, std::uint64_t>{{304, 1}, {404, 1}, {503, 1}}));
  EXPECT_TRUE(totals.balance.adds());
  EXPECT_EQ(totals.hosts.at("a:443").failed, 3u);
  EXPECT_EQ(totals.hosts.at("a:443").failure, "status 503");
}

TEST_F(LedgerTest, AFailureSaysItsKindAndWhat) {
  {
    const Ledger::Offer offer = ledger->offer({.session = 1});
    Shipment shipment = account->ship(offer.mark(), {}, nullptr);
    shipment.beginPost("a:443", 1);
    shipment.failed(HTTPFailure::tls, "a: the certificate has expired");
  }
  const auto decisions = ledger->latest(2, std::nullopt);
  EXPECT_EQ(outcomeOf(decisions[0]), "failed");
  EXPECT_TRUE(decisions[1].find("status")->isNull());
  EXPECT_EQ(*stringAt(decisions[1], "error"), "a: the certificate has expired");
  const Ledger::Totals totals = ledger->totals();
  EXPECT_EQ(totals.balance.failed[static_cast<std::size_t>(HTTPFailure::tls)], 1u);
  EXPECT_EQ(*dictionaryAt(totals.balance.toDictionary(), "failed"), (Dictionary{{"tls", 1}}));
}

TEST_F(LedgerTest, AShipmentThatIsForgottenIsNotFlushed) {
  const Ledger::Offer offer = ledger->offer({.session = 1});
  { const Shipment shipment = account->ship(offer.mark(), {}, nullptr); }
  EXPECT_EQ(dropped(Reason::notFlushed), 1u);
  EXPECT_TRUE(ledger->totals().balance.adds());
}

TEST_F(LedgerTest, AShipmentThatWasMovedCountsOnce) {
  const Ledger::Offer offer = ledger->offer({.session = 1});
  Shipment all;
  {
    Shipment one = account->ship(offer.mark(), {}, nullptr);
    Shipment moved = std::move(one);
    all.join(std::move(moved));
  }
  EXPECT_EQ(all.size(), 1u);
  all.drop(Reason::noAddress);
  all.drop(Reason::unwritable);
  EXPECT_EQ(dropped(Reason::noAddress), 1u);
  EXPECT_EQ(dropped(Reason::unwritable), 0u);
  EXPECT_TRUE(ledger->totals().balance.adds());
}

TEST_F(LedgerTest, WhatFiltersAndJSONDidToKeysIsRememberedInTheOrderOfTheirNames) {
  KeysChanged keys;
  keys.add(KeysChanged::Change::removed, "secret");
  keys.add(KeysChanged::Change::digested, "account");
  keys.add(KeysChanged::Change::removed, "address");
  {
    const Ledger::Offer offer = ledger->offer({.session = 1});
    Shipment shipment = account->ship(offer.mark(), keys, nullptr);
    shipment.noteUnwritable(0, "picture");
    shipment.drop(Reason::noAddress);
  }
  const Dictionary verdict = verdictOf(latest());
  EXPECT_EQ(*arrayAt(verdict, "removed"), (Array{"address", "secret"}));
  EXPECT_EQ(*arrayAt(verdict, "digested"), (Array{"account"}));
  EXPECT_EQ(*arrayAt(verdict, "unwritableKeys"), (Array{"picture"}));
}

TEST_F(LedgerTest, NamesOfKeysPastTheirRoomAreLeftOut) {
  KeysChanged keys;
  for (int i = 0; i < 100; ++i)
    keys.add(KeysChanged::Change::removed, "key" + std::to_string(1000 + i));
  const auto names = keys.names(KeysChanged::Change::removed);
  EXPECT_EQ(names.size(), KeysChanged::mostBytes / 9);
  EXPECT_EQ(names.front(), "key1000");
}

TEST_F(LedgerTest, TheLastDecisionsAreRememberedAndNoMore) {
  for (std::uint64_t i = 1; i <= Ledger::remembered + 40; ++i)
    ledger->drop({.session = i % 2}, Reason::noSessionInfo);
  const auto all = ledger->latest(10'000, std::nullopt);
  ASSERT_EQ(all.size(), Ledger::remembered);
  EXPECT_EQ(integerAt(all.front(), "event"), 41);
  EXPECT_EQ(integerAt(all.back(), "event"), static_cast<std::int64_t>(Ledger::remembered + 40));
  const auto ofOne = ledger->latest(3, 1);
  ASSERT_EQ(ofOne.size(), 3u);
  for (const Dictionary& event : ofOne) EXPECT_EQ(integerAt(event, "session"), 1);
  EXPECT_EQ(ledger->totals().balance.accepted, Ledger::remembered + 40);
}

TEST_F(LedgerTest, WhatIsRememberedNoMoreStillCounts) {
  const Ledger::Offer first = ledger->offer({.session = 1});
  account->hold(first.mark(), Reason::reporting, {}, nullptr);
  for (std::size_t i = 0; i < 2 * Ledger::remembered; ++i)
    ledger->drop({.session = 2}, Reason::noSessionInfo);
  Shipment shipment = account->shipHeld({first.mark()});
  shipment.beginPost("a:443", 10);
  shipment.answered(200);
  EXPECT_EQ(account->balance().delivered, 1u);
  for (const Dictionary& each : ledger->latest(Ledger::remembered, 2))
    EXPECT_EQ(*stringAt(each, "reason"), "noSessionInfo");
}

TEST_F(LedgerTest, AtTheEndWhatIsHeldOrUnderWayIsLost) {
  const Ledger::Offer one = ledger->offer({.session = 1});
  account->hold(one.mark(), Reason::reporting, {}, nullptr);
  const Ledger::Offer two = ledger->offer({.session = 1});
  Shipment shipment = account->ship(two.mark(), {}, nullptr);
  EXPECT_EQ(ledger->close(), 2u);
  EXPECT_EQ(dropped(Reason::lostAtStop), 2u);
  shipment.answered(200);
  account->dropHeld({one.mark()}, Reason::notFlushed);
  const Balance balance = ledger->totals().balance;
  EXPECT_EQ(balance.delivered, 0u) << "what comes after that counts no more";
  EXPECT_TRUE(balance.adds());
  EXPECT_EQ(ledger->close(), 0u);
}

TEST_F(LedgerTest, SilenceAndRefusalsAreCountedApartFromEvents) {
  ledger->countSilence(Reason::noConsent);
  ledger->countSilence(Reason::noConsent);
  ledger->countRefusedConnection(Reason::notEntitled);
  const Ledger::Totals totals = ledger->totals();
  EXPECT_EQ(totals.silent[static_cast<std::size_t>(Reason::noConsent)], 2u);
  EXPECT_EQ(totals.refusedConnections[static_cast<std::size_t>(Reason::notEntitled)], 1u);
  EXPECT_EQ(totals.balance.accepted, 0u);
}

// Whoever looks finds that the numbers add up, whatever others do meanwhile.
TEST_F(LedgerTest, TheBalanceAddsUpAtEveryMoment) {
  std::atomic<bool> isOver = false;
  std::vector<std::thread> workers;
  for (unsigned worker = 1; worker <= 4; ++worker)
    workers.emplace_back([&, worker] {
      std::mt19937 random(worker);
      const auto mine = accountOf(worker);
      std::vector<EventMark> held;
      for (int i = 0; i < 4000; ++i) {
        const Ledger::Offer offer = ledger->offer({.session = worker});
        switch (random() % 5) {
          case 0: mine->drop(offer.mark(), Reason::noConsent); break;
          case 1: mine->deliver(offer.mark()); break;
          case 2: {
            Shipment shipment = mine->ship(offer.mark(), {}, nullptr);
            shipment.beginPost("a:443", 1);
            if (random() % 2) shipment.answered(random() % 2 ? 200 : 404);
            break;
          }
          default:
            mine->hold(offer.mark(), Reason::reporting, {}, nullptr);
            held.push_back(offer.mark());
        }
        if (held.size() > 20) {
          Shipment shipment = mine->shipHeld(std::exchange(held, {}));
          shipment.failed(HTTPFailure::closed, "gone");
        }
      }
      mine->dropHeld(held, Reason::notFlushed);
      EXPECT_TRUE(mine->balance().adds());
    });
  std::thread watcher([&] {
    while (!isOver) ASSERT_TRUE(ledger->totals().balance.adds());
  });
  for (std::thread& worker : workers) worker.join();
  isOver = true;
  watcher.join();
  const Balance balance = ledger->totals().balance;
  EXPECT_EQ(balance.accepted, 16'000u);
  EXPECT_EQ(balance.held + balance.underWay, 0u);
  EXPECT_TRUE(balance.adds());
}

}  // namespace
}  // namespace corvid
