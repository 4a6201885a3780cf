// The decision as data: which rule refused, by which entry, and what was compared.
#include <gtest/gtest.h>

#include <limits>

#include "backends/https/ClientPolicy.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/fakes/LoggedFields.h"

namespace corvid {
namespace {

struct ClientPolicyTest : testing::Test {
  static Dictionary entryWith(std::string key, Value value) {
    Dictionary entry{{"client", "player"},
                     {"post_url", "https://events.test/batch"},
                     {"locale_whitelist", Array{"US"}},
                     {"filters", Array{}},
                     {"sampling_threshold", 0.5}};
    entry.set(std::move(key), std::move(value));
    return entry;
  }
  static Dictionary entryWithout(std::string_view key) {
    Dictionary entry = entryWith("event_threshold", 7);
    entry.erase(key);
    return entry;
  }
  PolicyDecision decideOn(Array entries, ClientPolicy before = {}) {
    profile = {{"clients", std::move(entries)}};
    return decide(profile, facts, std::move(before));
  }
  void expect(const PolicyDecision& decision, BackendState state, Reason reason) {
    EXPECT_EQ(decision.state, state);
    EXPECT_EQ(decision.reason, reason) << static_cast<int>(decision.reason);
  }

  Dictionary profile;
  Dictionary userInfo{{"_clientName", "Player"}, {"_serviceName", "radio"}};
  PolicyFacts facts{.requireUserInfo = true,
                    .userInfo = &userInfo,
                    .consent = true,
                    .country = "US",
                    .productFamily = "Robin",
                    .hardwareType = "Robin5,2",
                    .samplingFactor = 0.25};
};

TEST_F(ClientPolicyTest, AClientWhoPassesEveryRuleReportsByItsEntry) {
  const PolicyDecision decision =
      decideOn({"no entry", entryWith("client", "other"), entryWith("event_threshold", 7)});
  expect(decision, BackendState::sending, Reason::reporting);
  EXPECT_EQ(decision.entry, 2u);
  EXPECT_TRUE(decision.wasSampled);
  EXPECT_EQ(decision.samplingThreshold, 0.5);
  EXPECT_EQ(decision.policy.eventThreshold, 7);
  EXPECT_EQ(decision.policy.postURL, "https://events.test/batch");
  EXPECT_EQ(decision.policy.realtimePostURL, "https://events.test/batch");
}

TEST_F(ClientPolicyTest, TheLineOfADecisionHasItsReasonBesideItAndNoOtherLineHas) {
  const LoggedFields logged;
  const auto reasonBeside = [&](std::string_view beginning) {
    logRules(decideOn({entryWith("expedite", 1)}), facts);
    EXPECT_EQ(logged.last("HTTPSPostBackend(updateBackendState): Store bag").reason, "");
    return logged.last(beginning).reason;
  };
  facts.consent = false;
  EXPECT_EQ(reasonBeside("HTTPSPostBackend(updateBackendState): reporting disabled"), "noConsent");
  facts.consent = true;
  facts.country = "DE";
  EXPECT_EQ(reasonBeside("HTTPSPostBackend(updateBackendState): (DE) isn't"), "countryNotListed");
  facts.country = "US";
  for (const auto& [draw, reason] :
       {std::pair(0.25, Reason::reporting), std::pair(0.75, Reason::sampledOut)}) {
    facts.samplingFactor = draw;
    logMatch(decideOn({entryWith("event_threshold", 7)}), facts, "httpPost");
    const auto line = logged.last("HTTPSPostBackend(updateBackendState): httpPost: client found");
    EXPECT_EQ(line.reason, wordOf(reason));
    EXPECT_EQ(line.messageID, textOf(reason).messageID);
  }
}

TEST_F(ClientPolicyTest, EachRuleThatRefusesHasItsReason) {
  struct Case {
    Dictionary entry;
    BackendState state;
    Reason reason;
  };
  using enum BackendState;
  const Case cases[] = {
      {entryWithout("locale_whitelist"), disabled, Reason::countryNotListed},
      {entryWith("device_whitelist", Array{"Wren"}), disabled, Reason::deviceNotListed},
      {entryWith("device_blacklist", Array{"robin"}), disabled, Reason::deviceExcluded},
      {entryWithout("filters"), disabled, Reason::noFilters},
      {entryWithout("sampling_threshold"), disabled, Reason::noThreshold},
      {entryWith("sampling_threshold", 0.2), held, Reason::sampledOut},
  };
  for (const Case& each : cases) {
    const PolicyDecision decision = decideOn({each.entry, entryWith("client", "player")});
    expect(decision, each.state, each.reason);
    EXPECT_EQ(decision.entry, 0u) << "a later entry is not asked";
  }
  Dictionary beyond = entryWith("sampling_threshold", 0.1);
  beyond.set("override_sampling", 0.2);
  expect(decideOn({beyond}), disabled, Reason::sampledOut);
}

TEST_F(ClientPolicyTest, ARefusalNamesWhatItCompared) {
  const PolicyDecision decision = decideOn({entryWith("device_whitelist", Array{"Wren"})});
  ASSERT_NE(decision.list, nullptr);
  EXPECT_EQ(*decision.list, Array{"Wren"});
  EXPECT_EQ(decideOn({entryWithout("locale_whitelist")}).list, nullptr) << "an absent list";
}

TEST_F(ClientPolicyTest, ConsentUserInfoAndAMatchComeFirst) {
  facts.consent = false;
  const PolicyDecision refused = decideOn({entryWith("override_dnu", 2)});
  expect(refused, BackendState::disabled, Reason::noConsent);
  EXPECT_EQ(refused.overrideDNU, 2);
  expect(decideOn({entryWith("override_dnu", 1)}), BackendState::sending, Reason::reporting);

  const PolicyDecision unmatched = decideOn({entryWith("client", "other")});
  expect(unmatched, BackendState::disabled, Reason::noEntryMatches);
  EXPECT_EQ(unmatched.entry, std::nullopt);
  facts.userInfo = nullptr;
  expect(decideOn({entryWith("client", "player")}), BackendState::waiting,
         Reason::waitingForUserInfo);
  EXPECT_EQ(decideOn({entryWithout("client")}).entry, std::nullopt) << "it would match anybody";
}

TEST_F(ClientPolicyTest, WithoutRequiredUserInfoTheFirstEntryWithAnAddressServes) {
  facts.requireUserInfo = false;
  facts.consent = false;
  const PolicyDecision decision =
      decideOn({entryWithout("post_url"), entryWith("client", "other"), entryWith("expedite", 1)});
  expect(decision, BackendState::sending, Reason::reporting);
  EXPECT_EQ(decision.entry, 1u);
  EXPECT_EQ(decision.addresses.size(), 2u) << "each that was asked";
  EXPECT_FALSE(decision.wasSampled);
  EXPECT_EQ(decideOn({entryWithout("post_url")}).entry, std::nullopt);
}

TEST_F(ClientPolicyTest, WhatIsNotReachedStaysAsItWas) {
  ClientPolicy before;
  before.postURL = "https://before.test";
  before.eventThreshold = 3;
  before.filters = std::make_shared<const EventFilters>(Array{Dictionary{{"key", "x"}}});
  const auto filters = before.filters;
  facts.consent = false;
  const PolicyDecision decision = decideOn({entryWith("hierarchy", 2)}, before);
  EXPECT_EQ(decision.policy.postURL, "https://before.test");
  EXPECT_EQ(decision.policy.eventThreshold, 3);
  EXPECT_EQ(decision.policy.filters, filters);
  EXPECT_EQ(decision.hierarchy, 2) << "set before consent is asked for";
}

TEST_F(ClientPolicyTest, AProfileWithoutEntriesMatchesNobody) {
  for (const Dictionary& without : {Dictionary{}, Dictionary{{"clients", "none"}}})
    expect(decide(without, facts, {}), BackendState::disabled, Reason::noEntryMatches);
}

TEST_F(ClientPolicyTest, ADecisionLogsNothing) {
  CapturedLog log;
  decideOn({entryWith("expedite", 1), entryWithout("filters")});
  facts.requireUserInfo = false;
  decideOn({entryWith("expedite", 1)});
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace corvid
