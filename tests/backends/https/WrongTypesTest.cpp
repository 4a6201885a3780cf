// A value of a type that cannot stand for the wanted one counts as absent, whatever key it is
// under.
#include <limits>

#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

const double infinity = std::numeric_limits<double>::infinity();
const double nan = std::numeric_limits<double>::quiet_NaN();

const std::vector<Value> noStrings{Value(), true,      7,          0.5,
                                   Date{5}, Data{"x"}, Array{"x"}, Dictionary{{"x", "x"}}};
const std::vector<Value> noArrays{Value(), true,       7,    0.5,
                                  Date{5}, Data{"US"}, "US", Dictionary{{"US", "US"}}};
const std::vector<Value> noNumbers{Value(),   "1",      Date{1},
                                   Data{"1"}, Array{1}, Dictionary{{"1", 1}}};
const std::vector<Value> noIntegers{Value(), Date{1}, Data{"1"}, Array{1}, Dictionary{{"1", 1}}};

// Everything that a profile's values decide about.
struct Outcome {
  std::vector<std::string> properties;
  std::vector<std::pair<LogLevel, std::string>> lines;
  std::vector<std::string> requests;
  bool operator==(const Outcome&) const = default;
};

struct WrongTypesTest : PostBackendFixture {
  WrongTypesTest() {
    platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200); });
    platform.random->draw = 0.5;
  }

  Outcome outcomeOf(const Dictionary& profile) {
    platform.log.clear();
    const std::size_t before = requests().size();
    const auto backend = make(profile);
    if (!backend) return {{"no backend"}, platform.log.lines(), {}};
    backend->updateState();
    send(*backend, {{"x", "abc"}});
    send(*backend, {{"x", "abc"}}, 1);
    backend->flushMessagesWithCompletion(nullptr);
    Outcome outcome{
        {fmt::format("{}", static_cast<int>(backend->state())),
         fmt::format("{}", backend->hierarchy()), fmt::format("{}", backend->batchEvents()),
         fmt::format("{}", backend->samplingThreshold().value_or(-1)),
         backend->displayURL().value_or("none"), backend->postURL().value_or("none")},
        platform.log.lines(),
        {}};
    const auto all = requests();
    for (std::size_t i = before; i < all.size(); ++i)
      outcome.requests.push_back(all[i].url + " " + messageOf(all[i]));
    return outcome;
  }

  // A profile whose value under one key is the given one, or that lacks the key.
  using Profile = std::function<Dictionary(const std::string& key, const std::optional<Value>&)>;

  // `valid` shows that the key matters; each of `wrong` must leave things as without the key.
  void expectAbsent(const std::string& key, const Value& valid, const std::vector<Value>& wrong,
                    const Profile& profile) {
    const Outcome absent = outcomeOf(profile(key, std::nullopt));
    EXPECT_NE(outcomeOf(profile(key, valid)), absent) << key << " does not matter";
    for (const Value& value : wrong)
      EXPECT_EQ(outcomeOf(profile(key, value)), absent)
          << key << " of type " << static_cast<int>(value.type());
  }
};

Dictionary with(Dictionary dictionary, const std::string& key, const std::optional<Value>& value) {
  dictionary.erase(key);
  if (value) dictionary.set(key, *value);
  return dictionary;
}

TEST_F(WrongTypesTest, OfAClientEntrysValuesCountAsAbsent) {
  struct Row {
    std::string key;
    Value valid;
    std::vector<Value> wrong;
  };
  const std::vector<Row> table{
      {"client", "other", noStrings},
      {"service", "other", noStrings},
      {"expedite", 0, noIntegers},
      {"post_url", "https://other.test/b", noStrings},
      {"realtime_post_url", "https://other.test/r", noStrings},
      {"hierarchy", 2, noIntegers},
      {"override_dnu", 1, noIntegers},
      {"locale_whitelist", Array{"US"}, noArrays},
      {"device_whitelist", Array{"Wren"}, noArrays},
      {"device_blacklist", Array{"Robin"}, noArrays},
      {"filters", Array{}, noArrays},
      {"sampling_threshold", 0.75, noNumbers},
      {"per_country_sampling_thresholds",
       Array{Dictionary{{"country", Array{"US"}}, {"threshold", 0.25}}}, noArrays},
      {"event_threshold", 7, noIntegers},
      {"extras_on_internal", 7, noIntegers},
  };
  for (const Row& row : table)
    expectAbsent(row.key, row.valid, row.wrong,
                 [](const std::string& key, const std::optional<Value>& value) {
                   return Dictionary{{"clients", Array{with(openEntry(), key, value)}}};
                 });
}

TEST_F(WrongTypesTest, OfTheOverrideThresholdCountsAsAbsent) {
  Dictionary sampledOut = openEntryWith("sampling_threshold", 0.4);
  expectAbsent("override_sampling", 0.3, noNumbers,
               [&](const std::string& key, const std::optional<Value>& value) {
                 return Dictionary{{"clients", Array{with(sampledOut, key, value)}}};
               });
}

TEST_F(WrongTypesTest, OfTheProfilesValuesCountAsAbsent) {
  const Dictionary profile{{"clients", Array{openEntry()}}, {"display_url", "https://d.test"}};
  const auto make = [&](const std::string& key, const std::optional<Value>& value) {
    return with(profile, key, value);
  };
  expectAbsent("clients", Array{openEntry()}, noArrays, make);
  expectAbsent("display_url", "https://display.test", noStrings, make);
}

TEST_F(WrongTypesTest, OfAFiltersValuesCountAsAbsent) {
  const Dictionary removesX{{"key", "x"}, {"action", "remove"}};
  const auto make = [&](const std::string& key, const std::optional<Value>& value) {
    return Dictionary{
        {"clients", Array{openEntryWith("filters", Array{with(removesX, key, value)})}}};
  };
  expectAbsent("key", "x", noStrings, make);
  expectAbsent("action", "sha256", noStrings, make);
  expectAbsent("method", 5, noIntegers, make);
  expectAbsent("status", 5, noIntegers, make);
}

TEST_F(WrongTypesTest, OfACountrysValuesCountAsAbsent) {
  const Dictionary item{{"country", Array{"US"}}, {"threshold", 0.75}};
  const auto make = [&](const std::string& key, const std::optional<Value>& value) {
    return Dictionary{{"clients", Array{openEntryWith("per_country_sampling_thresholds",
                                                      Array{with(item, key, value)})}}};
  };
  expectAbsent("country", Array{"US"}, noArrays, make);
  expectAbsent("threshold", 0.75, noNumbers, make);
}

TEST_F(WrongTypesTest, OfUserInfoNamesMatchNoListAndGiveNoHeader) {
  for (const Value& wrong : noStrings) {
    userInfo = Dictionary{{"_clientName", wrong}, {"_serviceName", wrong}};
    EXPECT_EQ(makeFor(openEntryWith("client", "player"))->state(), BackendState::disabled);
    EXPECT_EQ(makeFor(openEntryWith("service", "radio"))->state(), BackendState::disabled);
    const auto backend = makeFor(openEntry());
    EXPECT_EQ(backend->state(), BackendState::sending) << "without lists everybody matches";
    send(*backend, {});
    EXPECT_EQ(headerOf(requests().back(), "X-CVD-Client-Name"), std::nullopt);
    EXPECT_EQ(headerOf(requests().back(), "X-CVD-Service-Name"), std::nullopt);
  }
}

TEST_F(WrongTypesTest, OfUserDefaultsCountAsUnset) {
  const Dictionary profile{{"clients", Array{openEntryWith("override_dnu", 1)}}};
  platform.preferences->setValue(corvidSuite, "environmentType", 1);
  platform.restart();
  const Outcome unset = outcomeOf(profile);
  for (const char* key : {"httpsPostURL", "httpsRealtimePostURL"}) {
    for (const Value& wrong : noStrings) {
      platform.preferences->setValue(corvidSuite, key, wrong);
      EXPECT_EQ(outcomeOf(profile), unset) << key;
    }
    platform.preferences->removeValue(corvidSuite, key);
  }
  for (const Value& wrong : noNumbers) {
    platform.preferences->setValue(corvidSuite, "forceEventLogging", wrong);
    const auto backend = make(profile);
    backend->updateState();
    EXPECT_EQ(send(*backend, {}), std::nullopt) << "no log text";
  }
  platform.preferences->setValue(corvidSuite, "forceEventLogging", true);
  const auto backend = make(profile);
  backend->updateState();
  EXPECT_NE(send(*backend, {}), std::nullopt);
}

// Numbers at the ends of their types

TEST_F(WrongTypesTest, NumbersStandForIntegersCutToThirtyTwoBits) {
  const std::vector<std::pair<Value, std::string>> table{
      {7.9, "7"},
      {-7.9, "-7"},
      {"12x", "12"},
      {"x", "0"},
      {true, "1"},
      {std::int64_t{0x1'0000'0007}, "7"},
      {std::numeric_limits<std::int64_t>::min(), "0"},
      {nan, "0"},
      {infinity, "-1"},
      {-infinity, "0"},
      {1e300, "-1"},
      {4294967303.0, "7"},
  };
  for (const auto& [value, told] : table) {
    platform.log.clear();
    Dictionary entry = openEntryWith("event_threshold", value);
    entry.set("extras_on_internal", value);
    const auto backend = makeFor(entry);
    EXPECT_TRUE(platform.log.has(LogLevel::debug,
                                 "resetBackendStateWithClient: event_threshold set to " + told));
    EXPECT_TRUE(platform.log.has(
        LogLevel::debug, "setBackendStateWithClient: extras on internal is set to " + told));
    send(*backend, {{"x", 1}});
    EXPECT_EQ(posted("x").back(), "1");
  }
}

TEST_F(WrongTypesTest, InfiniteThresholdsAdmitEveryoneOrNoOne) {
  EXPECT_EQ(makeFor(openEntryWith("sampling_threshold", infinity))->state(), BackendState::sending);
  EXPECT_EQ(makeFor(openEntryWith("sampling_threshold", -infinity))->state(), BackendState::held);
  Dictionary entry = openEntryWith("sampling_threshold", -infinity);
  entry.set("override_sampling", -infinity);
  EXPECT_EQ(makeFor(entry)->state(), BackendState::disabled);
}

TEST_F(WrongTypesTest, ThresholdsOfAnySizeCanBeLogged) {
  const auto told = [&](double threshold) {
    platform.log.clear();
    makeFor(openEntryWith("per_country_sampling_thresholds",
                          Array{Dictionary{{"country", Array{"US"}}, {"threshold", threshold}}}));
    const auto lines = linesOf("HTTPSPostBackend(updateBackendState): sampling threshold for US");
    return lines.empty() ? "nothing" : lines[0].substr(lines[0].rfind(' ') + 1);
  };
  EXPECT_EQ(told(nan), "nan");
  EXPECT_EQ(told(infinity), "inf");
  EXPECT_EQ(told(-infinity), "-inf");
  EXPECT_EQ(told(1e300), "inf") << "past single precision";
  EXPECT_EQ(told(0.045), "0.05") << "above the half in single precision, below it in double";
}

}  // namespace
}  // namespace corvid
