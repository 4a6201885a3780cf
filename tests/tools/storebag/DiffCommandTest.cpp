#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Scratch.h"
#include "tests/support/SlowBuild.h"
#include "tests/tools/storebag/StorebagTool.h"

namespace corvid {
namespace {

using testing::HasSubstr;

class DiffCommand : public testing::Test {
 protected:
  static Dictionary entry(const Dictionary& more = {}) {
    Dictionary entry{{"client", "Player"},
                     {"post_url", "https://c.example/p"},
                     {"locale_whitelist", Array{"DE", "AT"}},
                     {"sampling_threshold", 0.5},
                     {"override_sampling", 0.8},
                     {"filters", Array{}}};
    entry.addEntriesFrom(more);
    return entry;
  }
  static Dictionary storebagOf(Array entries, const Dictionary& more = {}) {
    Dictionary section{{"httpPost", Dictionary{{"clients", std::move(entries)}}}};
    section.addEntriesFrom(more);
    return {{"version", "1"}, {"release", std::move(section)}};
  }
  static Dictionary storebagWith(const Dictionary& more) {
    return storebagOf({entry(more), entry({{"client", "Reader"}})});
  }
  std::vector<std::string> arguments(const Dictionary& now, std::vector<std::string> more = {},
                                     const Dictionary& old = storebagWith({})) const {
    std::vector<std::string> words{"diff", _folder.write("old", writeXMLPropertyList(old)),
                                   _folder.write("new", writeXMLPropertyList(now))};
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }
  // What is said of it for programs; the exit status tells whether anything changes.
  Dictionary difference(const Dictionary& now, std::vector<std::string> more = {},
                        const Dictionary& old = storebagWith({})) const {
    more.push_back("--json");
    const ToolResult result = storebagTool(arguments(now, std::move(more), old));
    EXPECT_EQ(result.errors, "");
    const Dictionary said = *parseJSON(result.output).value().dictionary();
    EXPECT_EQ(result.status, arrayAt(said, "changes")->empty() ? 0 : 1);
    return said;
  }
  static const Array& changes(const Dictionary& said) { return *arrayAt(said, "changes"); }
  static const Array& outcomes(const Dictionary& said) { return *arrayAt(said, "outcomes"); }
  // Whether the outcome of somebody with these facts goes from one state and reason to others.
  static bool goes(const Dictionary& said, const Dictionary& facts, const std::string& from,
                   const std::string& to) {
    const auto word = [](const Value& side) {
      const Dictionary* const verdict = side.dictionary();
      return verdict ? *stringAt(*verdict, "state") + " " + *stringAt(*verdict, "reason") : "none";
    };
    return std::ranges::any_of(outcomes(said), [&](const Value& each) {
      const Dictionary& outcome = *each.dictionary();
      const Dictionary& its = *dictionaryAt(outcome, "facts");
      for (const auto& [key, value] : facts) {
        const Value* const found = its.find(key);
        if (value != (found ? *found : Value())) return false;
      }
      return word(*outcome.find("old")) == from && word(*outcome.find("new")) == to;
    });
  }

  const ScratchFolder _folder;
};

TEST_F(DiffCommand, NothingChangesBetweenEqualStorebagsAndItEndsWithZero) {
  EXPECT_EQ(difference(storebagWith({})),
            (Dictionary{{"changes", Array()}, {"outcomes", Array()}}));
  const ToolResult told = storebagTool(arguments(storebagWith({})));
  EXPECT_EQ(told.status, 0);
  EXPECT_EQ(told.output, "0 values changed, 0 outcomes\n");
}

TEST_F(DiffCommand, NamesEachValueThatChangedByItsPath) {
  Dictionary now = storebagWith({{"sampling_threshold", 0.25}});
  now.set("version", "2");
  now.set("refresh_cycle", 60);
  EXPECT_EQ(changes(difference(now)),
            (Array{Dictionary{{"path", "version"}, {"old", "1"}, {"new", "2"}},
                   Dictionary{{"path", "release.httpPost.clients[0].sampling_threshold"},
                              {"old", 0.5},
                              {"new", 0.25}},
                   Dictionary{{"path", "refresh_cycle"}, {"old", Value()}, {"new", 60}}}));
}

TEST_F(DiffCommand, AnEntryThatIsAddedOrTakenAwayIsOneChange) {
  const Dictionary longer =
      storebagOf({entry({{"client", "New"}}), entry(), entry({{"client", "Reader"}})});
  Dictionary said = difference(longer);
  ASSERT_EQ(changes(said).size(), 1u);
  EXPECT_EQ(*changes(said)[0].dictionary(), (Dictionary{{"path", "release.httpPost.clients[0]"},
                                                        {"old", Value()},
                                                        {"new", entry({{"client", "New"}})}}));
  EXPECT_TRUE(goes(said, {{"consent", true}, {"country", "DE"}, {"draw", 0.5}},
                   "disabled noEntryMatches", "sending reporting"));
  // Those of others have only moved.
  for (const Value& each : outcomes(said)) {
    const Dictionary* const names =
        dictionaryAt(*dictionaryAt(*each.dictionary(), "facts"), "userInfo");
    if (names) {
      EXPECT_EQ(*stringAt(*names, "_clientName"), "New");
    }
  }
  said = difference(storebagWith({}), {}, longer);
  ASSERT_EQ(changes(said).size(), 1u);
  EXPECT_TRUE(changes(said)[0].dictionary()->find("new")->isNull());
}

TEST_F(DiffCommand, TellsWhichCountriesGetAnotherOutcome) {
  const Dictionary said = difference(storebagWith({{"locale_whitelist", Array{"DE", "FR"}}}));
  const Dictionary facts{{"consent", true}, {"draw", 0.5}};
  const auto in = [&](const char* country) {
    Dictionary with = facts;
    with.set("country", country);
    return with;
  };
  EXPECT_TRUE(goes(said, in("AT"), "sending reporting", "disabled countryNotListed"));
  EXPECT_TRUE(goes(said, in("FR"), "disabled countryNotListed", "sending reporting"));
  for (const Value& each : outcomes(said)) {
    const std::string* const country =
        stringAt(*dictionaryAt(*each.dictionary(), "facts"), "country");
    ASSERT_NE(country, nullptr);
    EXPECT_TRUE(*country == "AT" || *country == "FR") << *country;
  }
}

TEST_F(DiffCommand, LooksAtBothSidesOfEachThreshold) {
  const Dictionary said =
      difference(storebagWith({{"sampling_threshold", 0.25}, {"override_sampling", 0.9}}));
  const auto drawn = [](double draw) {
    return Dictionary{{"consent", true}, {"country", "DE"}, {"draw", draw}};
  };
  EXPECT_TRUE(goes(said, drawn(0.5), "sending reporting", "held sampledOut"));
  EXPECT_TRUE(goes(said, drawn(0.9), "disabled sampledOut", "held sampledOut"));
  for (const Value& each : outcomes(said)) {
    const double draw = *asNumber(dictionaryAt(*each.dictionary(), "facts")->find("draw"));
    EXPECT_TRUE(draw == 0.5 || draw == 0.9) << draw;  // not at 0.25, 0.8 and above 0.9
  }
}

TEST_F(DiffCommand, LooksAtThresholdsOfCountriesAtDevicesAndAtConsent) {
  const auto perCountry = [](const char* country) {
    return Array{Dictionary{{"country", Array{country}}, {"threshold", 0.1}}};
  };
  Dictionary said =
      difference(storebagWith({{"per_country_sampling_thresholds", perCountry("AT")}}));
  EXPECT_TRUE(goes(said, {{"country", "AT"}, {"draw", 0.5}, {"consent", true}}, "sending reporting",
                   "held sampledOut"));
  EXPECT_FALSE(goes(said, {{"country", "DE"}}, "sending reporting", "held sampledOut"));
  said = difference(storebagWith({{"device_whitelist", Array{"Bench"}}}));
  EXPECT_TRUE(goes(said, {{"productFamily", "Another"}, {"consent", true}}, "sending reporting",
                   "disabled deviceNotListed"));
  said = difference(storebagWith({{"device_blacklist", Array{"Robin5,2"}}}));
  EXPECT_TRUE(goes(said, {{"hardwareType", "Robin5,2"}, {"consent", true}}, "sending reporting",
                   "disabled deviceExcluded"));
  said = difference(storebagWith({{"override_dnu", 1}}));
  EXPECT_TRUE(goes(said, {{"consent", false}}, "disabled noConsent", "sending reporting"));
  EXPECT_FALSE(goes(said, {{"consent", true}}, "disabled noConsent", "sending reporting"));
}

TEST_F(DiffCommand, AnotherAddressOrBatchIsAnotherOutcome) {
  const Dictionary said = difference(storebagWith({{"post_url", "https://c.example/q"}}));
  ASSERT_FALSE(outcomes(said).empty());
  const Dictionary& outcome = *outcomes(said).back().dictionary();
  EXPECT_EQ(*stringAt(*dictionaryAt(outcome, "old"), "postURL"), "https://c.example/p");
  EXPECT_EQ(*stringAt(*dictionaryAt(outcome, "new"), "postURL"), "https://c.example/q");
}

TEST_F(DiffCommand, OtherFiltersAreToldByTheRecord) {
  const Array filters{
      Dictionary{{"key", "secret"}, {"action", "remove"}, {"method", 9}, {"status", 4}}};
  const Dictionary said = difference(storebagWith({{"filters", filters}}));
  ASSERT_FALSE(outcomes(said).empty());
  const Dictionary& outcome = *outcomes(said)[0].dictionary();
  const Dictionary* const old = dictionaryAt(*dictionaryAt(outcome, "old"), "record");
  const Dictionary* const now = dictionaryAt(*dictionaryAt(outcome, "new"), "record");
  ASSERT_TRUE(old && now);
  EXPECT_TRUE(old->contains("secret"));
  EXPECT_FALSE(now->contains("secret"));
  EXPECT_EQ(*now->find("_method"), Value(9));
}

TEST_F(DiffCommand, LooksAtEveryEnvironmentAndBackend) {
  const Dictionary old = storebagOf({entry()});
  Dictionary now = old;
  now.set("development", *old.find("release"));
  Dictionary said = difference(now, {}, old);
  EXPECT_TRUE(std::ranges::any_of(outcomes(said), [](const Value& each) {
    const Dictionary& outcome = *each.dictionary();
    return *stringAt(*dictionaryAt(outcome, "facts"), "environment") == "development" &&
           *stringAt(*dictionaryAt(outcome, "old"), "reason") == "noSectionForEnvironment" &&
           *stringAt(*dictionaryAt(outcome, "new"), "name") == "httpPost";
  }));
  said = difference(storebagOf({entry()}, {{"uploadServer", Dictionary{{"post_url", "https://u/"}}},
                                           {"metrix", Dictionary()}}),
                    {}, old);
  for (const char* const backend : {"uploadServer", "metrix"})
    EXPECT_TRUE(std::ranges::any_of(outcomes(said), [&](const Value& each) {
      return *stringAt(*each.dictionary(), "backend") == backend;
    })) << backend;
}

TEST_F(DiffCommand, ASectionThatIsPromotedChangesItsOwnEnvironmentAlone) {
  Dictionary old = storebagOf({entry()});
  old.set("halcyon_internal", *storebagWith({{"sampling_threshold", 0.1}}).find("release"));
  old.set("seed", *old.find("release"));
  Dictionary now = old;
  now.set("seed", *old.find("halcyon_internal"));
  const Dictionary said = difference(now, {}, old);
  ASSERT_FALSE(outcomes(said).empty());
  for (const Value& each : outcomes(said))
    EXPECT_EQ(*stringAt(*dictionaryAt(*each.dictionary(), "facts"), "environment"), "seed");
}

TEST_F(DiffCommand, LooksAtTheFactsThatAreGivenToo) {
  const std::string player = R"({"clientType":"tessel","country":"DE","productFamily":"Bench 3",
    "consent":true,"draw":0.4,"sessionInfo":{"RequireUserInfo":true},
    "userInfo":{"_clientName":"PLAYER"}})";
  const Dictionary said = difference(storebagWith({{"sampling_threshold", 0.3}}),
                                     {"--facts", player, "--facts", R"({"clientType":3})"});
  EXPECT_TRUE(goes(said, {{"clientType", 6}, {"productFamily", "Bench 3"}, {"draw", 0.4}},
                   "sending reporting", "held sampledOut"));
}

TEST_F(DiffCommand, PeopleReadTheSame) {
  const ToolResult told = storebagTool(arguments(storebagWith({{"override_dnu", 1}})));
  EXPECT_EQ(told.status, 1);
  EXPECT_THAT(told.output, HasSubstr("release.httpPost.clients[0].override_dnu: nothing -> 1\n"));
  EXPECT_THAT(told.output, HasSubstr("httpPost: disabled (noConsent) -> sending (reporting)\n"));
  EXPECT_THAT(told.output, HasSubstr("\n1 values changed, "));
}

TEST_F(DiffCommand, TroubleIsTwoAndWrongUsage64) {
  const std::string there = _folder.write("there", writeXMLPropertyList(storebagWith({})));
  expectFailure({"diff", there, _folder.path("none")},
                _folder.path("none") + ": No such file or directory", 2);
  const auto expectWrong = [&](const char* facts, const std::string& message) {
    expectFailure({"diff", there, there, "--facts", facts},
                  message + " (corvid-storebag diff --help says more)", 64);
  };
  expectWrong("{}", "--facts needs a \"clientType\" here");
  expectWrong(R"({"clientType":6,"consnt":true})",
              "unknown fact \"consnt\": did you mean \"consent\"?");
}

TEST_F(DiffCommand, TakesUnder50MillisecondsForAStorebagWith500Entries) {
  Array entries;
  for (int i = 0; i < 500; ++i) entries.push_back(entry({{"client", fmt::format("Client{}", i)}}));
  const Dictionary old = storebagOf(entries);
  entries[499] = entry({{"client", "Client499"}, {"sampling_threshold", 0.1}});
  const std::vector<std::string> words = arguments(storebagOf(entries), {"--json"}, old);
  EXPECT_THAT(storebagTool(words).output, HasSubstr("Client499"));
  EXPECT_LT(processorMilliseconds(words, 1), isSlowBuild ? 1000 : 50);
}

TEST_F(DiffCommand, ComparesEachKindOfFactsOnceWhereAll500EntriesChange) {
  Array entries, changed;
  for (int i = 0; i < 500; ++i) {
    const Dictionary its{{"client", fmt::format("Client{}", i)},
                         {"post_url", fmt::format("https://c.example/{}", i)},
                         {"locale_whitelist", Array{"DE", "AT", "FR", "US"}}};
    entries.push_back(entry(its));
    changed.push_back(entry(its));
    Dictionary other = *changed.back().dictionary();
    other.set("sampling_threshold", 0.1);
    changed.back() = std::move(other);
  }
  const std::vector<std::string> words = arguments(storebagOf(changed), {}, storebagOf(entries));
  EXPECT_THAT(storebagTool(words).output, HasSubstr("\n500 values changed, "));
  // A device for each cell of the matrix would take a second.
  EXPECT_LT(processorMilliseconds(words, 1), isSlowBuild ? 6000 : 400);
}

}  // namespace
}  // namespace corvid
