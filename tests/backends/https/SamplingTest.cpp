// Which sessions report: thresholds against the draw of the backend.
#include <limits>

#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

struct SamplingTest : PostBackendFixture {
  SamplingTest() { platform.random->draw = 0.5; }

  BackendState stateFor(std::optional<Value> threshold, std::optional<Value> limit = std::nullopt) {
    Dictionary entry = openEntryWithout("sampling_threshold");
    if (threshold) entry.set("sampling_threshold", *threshold);
    if (limit) entry.set("override_sampling", *limit);
    return makeFor(entry)->state();
  }
  static Dictionary perCountry(Value countries, std::optional<Value> threshold) {
    Dictionary item{{"country", std::move(countries)}};
    if (threshold) item.set("threshold", *threshold);
    return item;
  }
  std::shared_ptr<HTTPSPostBackend> makePerCountry(Value items) {
    return makeFor(openEntryWith("per_country_sampling_thresholds", std::move(items)));
  }
};

TEST_F(SamplingTest, ADrawUpToTheThresholdSends) {
  EXPECT_EQ(stateFor(0.5), BackendState::sending);
  EXPECT_EQ(stateFor(1), BackendState::sending) << "an integer is a number too";
  EXPECT_EQ(stateFor(0.4), BackendState::held);
}

TEST_F(SamplingTest, WithoutAThresholdReportingIsDisabled) {
  EXPECT_EQ(stateFor(std::nullopt), BackendState::disabled);
  EXPECT_EQ(stateFor("0.9"), BackendState::disabled) << "no number";
}

TEST_F(SamplingTest, AnEntryWithoutAThresholdTakesAnEarlierOneAway) {
  const auto backend = make({{"clients", Array{openEntryWithout("sampling_threshold")}}});
  backend->setSamplingThreshold(1.0);
  backend->updateState();
  EXPECT_EQ(backend->samplingThreshold(), std::nullopt);
  EXPECT_EQ(backend->state(), BackendState::disabled);
}

TEST_F(SamplingTest, TheOverrideDecidesBetweenHeldAndDisabled) {
  EXPECT_EQ(stateFor(0.4, 0.3), BackendState::disabled);
  EXPECT_EQ(stateFor(0.4, 0.5), BackendState::held);
  EXPECT_EQ(stateFor(0.4, 0.6), BackendState::held);
  EXPECT_EQ(stateFor(0.4, "0.3"), BackendState::held) << "no number: none given";
  EXPECT_EQ(stateFor(0.5, 0.0), BackendState::sending) << "not asked for";
}

TEST_F(SamplingTest, AnOverrideThatIsNoNumberHoldsAndSuchAThresholdDoesNotSend) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(stateFor(0.4, nan), BackendState::held);
  EXPECT_EQ(stateFor(nan, 0.3), BackendState::disabled);
  EXPECT_EQ(stateFor(nan), BackendState::held);
}

TEST_F(SamplingTest, TheDrawIsKeptForTheBackendsLife) {
  const auto backend = makeFor(openEntryWith("sampling_threshold", 0.5));
  platform.random->draw = 0.9;
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::sending);
}

TEST_F(SamplingTest, SettingsAfterSamplingApplyToADisabledBackendToo) {
  const auto backend = makeFor(openEntryWithout("sampling_threshold"));
  EXPECT_EQ(backend->state(), BackendState::disabled);
  EXPECT_EQ(backend->postURL(), batchURL);
  EXPECT_TRUE(platform.log.has(
      LogLevel::debug,
      "HTTPSPostBackend(updateBackendState): httpPost: client found player:radio, state=1, "
      "samplingFactor=0.500000, hierarchy=0"));
}

TEST_F(SamplingTest, AListedCountryReplacesTheThreshold) {
  const auto backend =
      makePerCountry(Array{perCountry(Array{"DE"}, 0.2), perCountry(Array{"FR", "US"}, 0.456),
                           perCountry(Array{"US"}, 0.9)});
  EXPECT_EQ(backend->samplingThreshold(), 0.456) << "the first that lists it";
  EXPECT_EQ(linesOf("HTTPSPostBackend(updateBackendState): sampling"),
            std::vector<std::string>{"HTTPSPostBackend(updateBackendState): sampling threshold for "
                                     "US changed from 1.00 to 0.46"});
}

TEST_F(SamplingTest, CountriesAreComparedExactly) {
  for (const Value& countries : {Value(Array{"us", "USA", "U"}), Value("US"), Value(Array{1})})
    EXPECT_EQ(makePerCountry(Array{perCountry(countries, 0.2)})->samplingThreshold(), 1.0);
  EXPECT_FALSE(platform.log.anyContains("sampling threshold for"));
}

TEST_F(SamplingTest, AnUnknownCountryKeepsTheThreshold) {
  platform.locale->country.reset();
  EXPECT_EQ(makePerCountry(Array{perCountry(Array{"US"}, 0.2)})->samplingThreshold(), 1.0);
}

TEST_F(SamplingTest, AListedCountryWithoutAThresholdTakesTheThresholdAway) {
  const auto backend = makePerCountry(Array{perCountry(Array{"US"}, std::nullopt)});
  EXPECT_EQ(backend->samplingThreshold(), std::nullopt);
  EXPECT_EQ(backend->state(), BackendState::disabled);
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "HTTPSPostBackend(updateBackendState): sampling threshold for US "
                               "changed from 1.00 to 0.00"));
}

TEST_F(SamplingTest, AThresholdForTheCountryStandsInForAMissingOne) {
  Dictionary entry = openEntryWithout("sampling_threshold");
  entry.set("per_country_sampling_thresholds", Array{perCountry(Array{"US"}, 0.75)});
  const auto backend = makeFor(entry);
  EXPECT_EQ(backend->samplingThreshold(), 0.75);
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "HTTPSPostBackend(updateBackendState): sampling threshold for US "
                               "changed from 0.00 to 0.75"));
}

TEST_F(SamplingTest, CountryItemsOfAnotherTypeArePassedOver) {
  EXPECT_EQ(makePerCountry(Array{"US", 5, perCountry(Array{"US"}, 0.2)})->samplingThreshold(), 0.2);
  EXPECT_EQ(makePerCountry("US")->samplingThreshold(), 1.0);
}

}  // namespace
}  // namespace corvid
