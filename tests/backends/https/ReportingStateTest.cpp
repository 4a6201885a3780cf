// What a client entry makes of the backend's state.
#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

struct ReportingStateTest : PostBackendFixture {
  BackendState stateFor(const Dictionary& entry) { return makeFor(entry)->state(); }
  BackendState stateWith(std::string key, Value value) {
    return stateFor(openEntryWith(std::move(key), std::move(value)));
  }
  bool debugged(std::string_view text) const { return platform.log.has(LogLevel::debug, text); }
};

TEST_F(ReportingStateTest, AnOpenEntrySends) {
  EXPECT_EQ(stateFor(openEntry()), BackendState::sending);
}

TEST_F(ReportingStateTest, UpdateBackendStateAnswersWithoutSettingTheState) {
  const auto backend = make({{"clients", Array{openEntry()}}});
  EXPECT_EQ(backend->updateBackendState(), BackendState::sending);
  EXPECT_EQ(backend->state(), BackendState::waiting);
}

// Matching

TEST_F(ReportingStateTest, WithoutAMatchReportingIsDisabled) {
  EXPECT_EQ(makeFor(Array{})->state(), BackendState::disabled);
  EXPECT_EQ(stateWith("client", "other"), BackendState::disabled);
  EXPECT_EQ(stateWith("service", "other"), BackendState::disabled);
}

TEST_F(ReportingStateTest, ClientNamesMatchWholeAndServiceFragmentsInside) {
  EXPECT_EQ(stateWith("client", "other,PLAYER"), BackendState::sending);
  EXPECT_EQ(stateWith("client", "play"), BackendState::disabled);
  EXPECT_EQ(stateWith("client", "other, player"), BackendState::disabled) << "no trimming";
  EXPECT_EQ(stateWith("client", ""), BackendState::disabled) << "an empty item matches nothing";
  EXPECT_EQ(stateWith("service", "tv,ADI"), BackendState::sending);
  EXPECT_EQ(stateWith("service", "radio station"), BackendState::disabled);
}

TEST_F(ReportingStateTest, BothNamesMustMatch) {
  Dictionary entry = openEntryWith("client", "player");
  entry.set("service", "tv");
  EXPECT_EQ(stateFor(entry), BackendState::disabled);
  entry.set("service", "radio");
  EXPECT_EQ(stateFor(entry), BackendState::sending);
}

TEST_F(ReportingStateTest, AnAbsentNameFailsAgainstAListOnly) {
  userInfo = Dictionary{};
  EXPECT_EQ(stateFor(openEntry()), BackendState::sending);
  EXPECT_EQ(stateWith("client", "player"), BackendState::disabled);
  EXPECT_EQ(stateWith("service", "radio"), BackendState::disabled);
}

TEST_F(ReportingStateTest, NamesAndListsOfAnotherTypeAreAbsent) {
  EXPECT_EQ(stateWith("client", 5), BackendState::sending) << "no list: everybody";
  userInfo = Dictionary{{"_clientName", 5}};
  EXPECT_EQ(stateWith("client", "5"), BackendState::disabled);
}

TEST_F(ReportingStateTest, OnlyTheFirstMatchIsConsidered) {
  const auto backend = makeFor(Array{"no entry", openEntryWith("client", "other"),
                                     openEntryWith("hierarchy", 2), openEntryWith("hierarchy", 3)});
  EXPECT_EQ(backend->hierarchy(), 2);
  EXPECT_EQ(makeFor(Array{openEntryWithout("filters"), openEntry()})->state(),
            BackendState::disabled)
      << "a later entry is not tried";
}

// User info

TEST_F(ReportingStateTest, WaitsForRequiredUserInfo) {
  userInfo.reset();
  const auto backend = makeFor(openEntryWith("hierarchy", 2));
  EXPECT_EQ(backend->state(), BackendState::waiting);
  EXPECT_EQ(backend->hierarchy(), 0);
  backend->setUserInfoDict(shared(Dictionary{}));
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::sending);
}

TEST_F(ReportingStateTest, WaitsForUserInfoEvenWhereNoEntryMatchesWithoutIt) {
  userInfo.reset();
  EXPECT_EQ(stateWith("client", "player"), BackendState::waiting);
}

TEST_F(ReportingStateTest, WithoutRequiredUserInfoNoOtherRuleApplies) {
  sessionInfo.set("RequireUserInfo", false);
  platform.consent->allowed = false;
  const auto backend = makeFor(Dictionary{{"client", "other"}, {"hierarchy", 2}});
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_EQ(backend->hierarchy(), 0);
  EXPECT_EQ(makeFor(Array{})->state(), BackendState::sending);
}

// Expedite

TEST_F(ReportingStateTest, ExpediteDecidesAboutBatching) {
  const auto expedited = makeFor(openEntryWith("expedite", 0));
  EXPECT_TRUE(expedited->batchEvents());
  EXPECT_TRUE(debugged("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=1"));
  sessionInfo.set("BatchEvent", true);
  EXPECT_FALSE(makeFor(openEntryWith("expedite", -1))->batchEvents());
  EXPECT_TRUE(debugged("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=0"));
  platform.log.clear();
  EXPECT_TRUE(makeFor(openEntry())->batchEvents()) << "unchanged without the key";
  EXPECT_FALSE(platform.log.anyContains("Store bag override"));
}

TEST_F(ReportingStateTest, ExpediteOfTheFirstMatchAppliesBeforeEverythingElse) {
  userInfo.reset();
  const auto waiting =
      makeFor(Array{openEntryWith("client", "player"), openEntryWith("expedite", 0)});
  EXPECT_EQ(waiting->state(), BackendState::waiting);
  EXPECT_TRUE(waiting->batchEvents());
  sessionInfo.set("RequireUserInfo", false);
  EXPECT_TRUE(makeFor(openEntryWith("expedite", 0))->batchEvents());
  EXPECT_FALSE(makeFor(Array{openEntry(), openEntryWith("expedite", 0)})->batchEvents());
}

// Hierarchy and consent

TEST_F(ReportingStateTest, HierarchyIsSetEvenWhereALaterRuleRefuses) {
  platform.consent->allowed = false;
  const auto backend = makeFor(openEntryWith("hierarchy", 2));
  EXPECT_EQ(backend->state(), BackendState::disabled);
  EXPECT_EQ(backend->hierarchy(), 2);
  const auto absent = make({{"clients", Array{openEntry()}}});
  absent->setHierarchy(5);
  absent->updateState();
  EXPECT_EQ(absent->hierarchy(), 0);
}

TEST_F(ReportingStateTest, WithoutConsentReportingIsDisabled) {
  platform.consent->allowed = false;
  EXPECT_EQ(stateFor(openEntry()), BackendState::disabled);
  EXPECT_TRUE(debugged("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: 0."));
  EXPECT_EQ(stateWith("override_dnu", 2), BackendState::disabled);
  EXPECT_TRUE(debugged("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: 2."));
}

TEST_F(ReportingStateTest, AnEntryMayOverrideConsent) {
  platform.consent->allowed = false;
  EXPECT_EQ(stateWith("override_dnu", 1), BackendState::sending);
  EXPECT_FALSE(platform.log.anyContains("reporting disabled by DNU"));
}

TEST_F(ReportingStateTest, ConsentIsReadOnceAtCreation) {
  const auto backend = makeFor(openEntry());
  platform.consent->allowed = false;
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::sending);
}

// Lists

TEST_F(ReportingStateTest, TheCountryMustBeListed) {
  EXPECT_EQ(stateWith("locale_whitelist", Array{"DE", "FR"}), BackendState::disabled);
  EXPECT_TRUE(debugged(
      "HTTPSPostBackend(updateBackendState): (US) isn't in country code list [\"DE\",\"FR\"]"));
  EXPECT_EQ(stateWith("locale_whitelist", Array{"DE", "us"}), BackendState::sending);
  platform.locale->country = "AUSX";
  EXPECT_EQ(stateWith("locale_whitelist", Array{"US"}), BackendState::sending)
      << "a code that merely contains it";
}

TEST_F(ReportingStateTest, WithoutACountryListReportingIsDisabled) {
  EXPECT_EQ(stateFor(openEntryWithout("locale_whitelist")), BackendState::disabled);
  EXPECT_TRUE(
      debugged("HTTPSPostBackend(updateBackendState): (US) isn't in country code list (null)"));
  EXPECT_EQ(stateWith("locale_whitelist", Array{}), BackendState::disabled);
  EXPECT_TRUE(debugged("HTTPSPostBackend(updateBackendState): (US) isn't in country code list []"));
  EXPECT_EQ(stateWith("locale_whitelist", "US"), BackendState::disabled) << "no array";
}

TEST_F(ReportingStateTest, AnUnknownCountryPassesAList) {
  platform.locale->country.reset();
  EXPECT_EQ(stateFor(openEntry()), BackendState::sending);
  EXPECT_EQ(stateFor(openEntryWithout("locale_whitelist")), BackendState::disabled);
  EXPECT_TRUE(
      debugged("HTTPSPostBackend(updateBackendState): ((null)) isn't in country code list (null)"));
}

TEST_F(ReportingStateTest, TheProductFamilyMustPassTheDeviceWhitelist) {
  EXPECT_EQ(stateWith("device_whitelist", Array{"Wren"}), BackendState::disabled);
  EXPECT_TRUE(debugged(
      "HTTPSPostBackend(updateBackendState): (Robin) isn't in device whitelist [\"Wren\"]"));
  EXPECT_EQ(stateWith("device_whitelist", Array{"Wren", "ROB"}), BackendState::sending);
  EXPECT_EQ(stateWith("device_whitelist", Array{}), BackendState::sending);
}

TEST_F(ReportingStateTest, TheHardwareTypeMustNotBeBlacklisted) {
  EXPECT_EQ(stateWith("device_blacklist", Array{"robin5"}), BackendState::disabled);
  EXPECT_TRUE(debugged(
      "HTTPSPostBackend(updateBackendState): (Robin5,2) is in device blacklist [\"robin5\"]"));
  EXPECT_EQ(stateWith("device_blacklist", Array{"Wren"}), BackendState::sending);
  EXPECT_EQ(stateWith("device_blacklist", Array{}), BackendState::sending);
}

TEST_F(ReportingStateTest, AnUnknownHardwareTypeCountsAsBlacklisted) {
  platform.device->remove("ProductType");
  EXPECT_EQ(stateWith("device_blacklist", Array{"Wren"}), BackendState::disabled);
  EXPECT_TRUE(
      debugged("HTTPSPostBackend(updateBackendState): ((null)) is in device blacklist [\"Wren\"]"));
  EXPECT_EQ(stateFor(openEntry()), BackendState::sending) << "without a list there is no hit";
}

TEST_F(ReportingStateTest, RulesAreTriedInTheirOrderAndTheFirstRefusalEndsIt) {
  platform.consent->allowed = false;
  Dictionary entry{{"device_whitelist", Array{"Wren"}}, {"device_blacklist", Array{"Robin"}}};
  const auto refusal = [&](LogLevel level = LogLevel::debug,
                           LogLevel otherLevel = LogLevel::warning) {
    platform.log.clear();
    EXPECT_EQ(stateFor(entry), BackendState::disabled);
    const std::string prefix = "HTTPSPostBackend(updateBackendState): ";
    const auto lines = linesOf(prefix, level);
    EXPECT_TRUE(linesOf(prefix, otherLevel).empty());
    return lines.size() == 1 ? lines[0].substr(prefix.size())
                             : fmt::format("{} lines", lines.size());
  };
  EXPECT_EQ(refusal(), "reporting disabled by DNU: 0.");
  entry.set("override_dnu", 1);
  EXPECT_EQ(refusal(), "(US) isn't in country code list (null)");
  entry.set("locale_whitelist", Array{"US"});
  EXPECT_EQ(refusal(), "(Robin) isn't in device whitelist [\"Wren\"]");
  entry.erase("device_whitelist");
  EXPECT_EQ(refusal(), "(Robin5,2) is in device blacklist [\"Robin\"]");
  entry.erase("device_blacklist");
  EXPECT_EQ(refusal(LogLevel::warning, LogLevel::debug), "filters are required.");
  entry.set("filters", Array{});
  EXPECT_EQ(refusal(),
            "httpPost: client found player:radio, state=1, samplingFactor=0.500000, hierarchy=0");
}

// Filters

TEST_F(ReportingStateTest, FiltersAreRequired) {
  EXPECT_EQ(stateFor(openEntryWithout("filters")), BackendState::disabled);
  EXPECT_TRUE(platform.log.has(LogLevel::warning,
                               "HTTPSPostBackend(updateBackendState): filters are required."));
  EXPECT_EQ(stateWith("filters", Dictionary{}), BackendState::disabled) << "no array";
  EXPECT_EQ(stateWith("filters", Array{}), BackendState::sending);
}

TEST_F(ReportingStateTest, AnEmptyFilterListKeepsTheFiltersBefore) {
  const auto backend =
      makeFor(Array{openEntryWith("client", "player"), openEntryWith("filters", Array{})});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  Dictionary record{{"secret", 1}, {"open", 2}};
  backend->filterEvent(record);
  EXPECT_EQ(record, (Dictionary{{"open", 2}}));
}

TEST_F(ReportingStateTest, NewFiltersReplaceTheOldOnes) {
  const auto backend = makeFor(
      Array{openEntryWith("client", "player"),
            openEntryWith("filters", Array{Dictionary{{"key", "open"}, {"action", "remove"}}})});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  Dictionary record{{"secret", 1}, {"open", 2}};
  backend->filterEvent(record);
  EXPECT_EQ(record, (Dictionary{{"secret", 1}}));
}

// The rest

TEST_F(ReportingStateTest, TheEntryThatWasFoundIsLogged) {
  platform.random->draw = 0.25;
  sessionInfo.set("BatchEvent", true);
  makeFor(openEntryWith("hierarchy", 1));
  EXPECT_TRUE(
      debugged("HTTPSPostBackend(updateBackendState): httpPost: client found player:radio, "
               "state=2, samplingFactor=0.250000, hierarchy=1"));
  userInfo = Dictionary{};
  makeFor(openEntry());
  EXPECT_TRUE(
      debugged("HTTPSPostBackend(updateBackendState): httpPost: client found (null):(null), "
               "state=2, samplingFactor=0.250000, hierarchy=0"));
}

TEST_F(ReportingStateTest, ThresholdAndExtrasAreTakenOverAndLogged) {
  Dictionary entry = openEntryWith("event_threshold", 7);
  entry.set("extras_on_internal", 3);
  makeFor(entry);
  EXPECT_TRUE(debugged("resetBackendStateWithClient: event_threshold set to 7"));
  EXPECT_TRUE(debugged("setBackendStateWithClient: extras on internal is set to 3"));
  makeFor(openEntryWithout("event_threshold"));
  EXPECT_TRUE(debugged("resetBackendStateWithClient: event_threshold set to 0"));
  EXPECT_TRUE(debugged("setBackendStateWithClient: extras on internal is set to 0"));
}

TEST_F(ReportingStateTest, ARefusalLeavesTheEarlierSettings) {
  const auto backend =
      makeFor(Array{openEntryWith("client", "player"),
                    Dictionary{{"post_url", "https://refused.test"}, {"sampling_threshold", 0.1}}});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::disabled) << "no country list";
  EXPECT_EQ(backend->postURL(), batchURL);
  EXPECT_EQ(backend->samplingThreshold(), 1.0);
  Dictionary record{{"secret", 1}};
  backend->filterEvent(record);
  EXPECT_EQ(record, Dictionary{});
}

TEST_F(ReportingStateTest, ACustomIdentifierIsMadeForClientAndServiceAsTheyAreWritten) {
  userInfo = Dictionary{{"_clientName", "Player"}, {"_serviceName", "Radio"}};
  makeFor(openEntryWith("custom_clientId", false));
  const auto stored = platform.preferences->value(corvidSuite, "uuid:Player:Radio");
  ASSERT_TRUE(stored) << "the key's presence asks for it, whatever its value";
  EXPECT_EQ(*stored, Value("00000000-0000-0000-0000-000000000001"));
  userInfo = Dictionary{};
  makeFor(openEntryWith("custom_clientId", 1));
  EXPECT_TRUE(platform.preferences->value(corvidSuite, "uuid::"));
}

}  // namespace
}  // namespace corvid
