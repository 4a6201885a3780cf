#include <fmt/format.h>
#include <gmock/gmock.h>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Scratch.h"
#include "tests/support/SlowBuild.h"
#include "tests/tools/storebag/StorebagTool.h"

namespace corvid {
namespace {

using testing::HasSubstr;

constexpr const char* explainedBag = R"({"version":"1","release":{
  "httpPost":{"clients":[
    {"client":"Reader","post_url":"https://c.example/reader"},
    {"client":"Player","post_url":"https://c.example/p","realtime_post_url":"https://c.example/now",
     "locale_whitelist":["DE"],"sampling_threshold":0.5,"override_sampling":0.8,"event_threshold":9,
     "filters":[{"key":"secret","action":"remove"},{"key":"account","action":"sha256"}]}]},
  "uploadServer":{"post_url":"https://u.example/"}}})";

constexpr const char* playerFacts = R"("productFamily":"Bench","country":"DE","consent":true,
  "sessionInfo":{"RequireUserInfo":true,"BatchEvent":true},"userInfo":{"_clientName":"Player"})";

class ExplainCommand : public testing::Test {
 protected:
  std::vector<std::string> arguments(const std::string& facts, const char* event = nullptr) const {
    std::vector<std::string> words{"explain", _file, "--client-type", "6", "--facts", facts};
    if (event) words.insert(words.end(), {"--event", event});
    return words;
  }
  Dictionary explained(const std::string& facts, const char* event = nullptr) const {
    std::vector<std::string> words = arguments(facts, event);
    words.push_back("--json");
    return *parseJSON(printedBy(words)).value().dictionary();
  }
  static std::string playerWith(const std::string& more) {
    return fmt::format("{{{}{}}}", playerFacts, more);
  }
  // Of the backend httpPost.
  static Dictionary first(const Dictionary& in) {
    return *arrayAt(in, "backends")->front().dictionary();
  }
  void expectWrong(const std::string& facts, const char* event, const std::string& message) const {
    expectFailure(arguments(facts, event), message + " (corvid-storebag explain --help says more)",
                  64);
  }

  const ScratchFolder _folder;
  const std::string _file = _folder.write("storebag", explainedBag);
};

TEST_F(ExplainCommand, TellsOfEachBackendAllThatDecides) {
  const Dictionary told = explained(playerWith(""));
  EXPECT_EQ(*told.find("environment"), Value("release"));
  EXPECT_TRUE(told.find("reason")->isNull());
  EXPECT_TRUE(told.find("event")->isNull());
  EXPECT_EQ(first(told), (Dictionary{{"name", "httpPost"},
                                     {"state", "sending"},
                                     {"reason", "reporting"},
                                     {"detail", Value()},
                                     {"entry", 1},
                                     {"postURL", "https://c.example/p"},
                                     {"realtimePostURL", "https://c.example/now"},
                                     {"eventThreshold", 9},
                                     {"samplingThreshold", 0.5},
                                     {"batch", true}}));
  const Dictionary upload = *arrayAt(told, "backends")->at(1).dictionary();
  EXPECT_EQ(*upload.find("postURL"), Value("https://u.example/"));
  EXPECT_EQ(*upload.find("reason"), Value("takesNoEvents"));
  EXPECT_TRUE(upload.find("batch")->isNull());
}

TEST_F(ExplainCommand, TellsTheRecordThatWouldLeaveAndWhereTo) {
  const Dictionary told =
      explained(playerWith(R"(,"productVersion":"12.3","timeZoneOffset":3600,"internal":true)"),
                R"({"category":7,"type":2,"flag":1,"payload":{"secret":"s","n":1,
                    "when":{"$date":5}}})");
  EXPECT_EQ(first(*dictionaryAt(told, "event")),
            (Dictionary{{"name", "httpPost"},
                        {"outcome", "underWay"},
                        {"reason", "reporting"},
                        {"address", "https://c.example/now"},
                        {"record", Dictionary{{"n", 1},
                                              {"when", 5.0},
                                              {"_sender", "ZJ"},
                                              {"_clientVersion", 0},
                                              {"_method", 7},
                                              {"_status", 2},
                                              {"_productFamily", "Bench"},
                                              {"_osVersion", "12.3"},
                                              {"_internal", 1},
                                              {"_reportVers", "8.0"},
                                              {"_timezoneOffset", 3600},
                                              {"_clientName", "Player"}}}}));
}

TEST_F(ExplainCommand, TellsOfAHeldEventWhereItWouldGo) {
  const Dictionary told = explained(playerWith(R"(,"draw":0.6)"), R"({"category":7,"type":2})");
  EXPECT_EQ(*first(told).find("state"), Value("held"));
  const Dictionary event = first(*dictionaryAt(told, "event"));
  EXPECT_EQ(*event.find("outcome"), Value("held"));
  EXPECT_EQ(*event.find("reason"), Value("sampledOut"));
  EXPECT_EQ(*event.find("address"), Value("https://c.example/p"));
  EXPECT_NE(dictionaryAt(event, "record"), nullptr);
}

TEST_F(ExplainCommand, ADroppedEventHasNeitherAddressNorRecord) {
  const Dictionary told = explained(playerWith(R"(,"draw":0.9)"), R"({"category":7,"type":2})");
  EXPECT_EQ(first(*dictionaryAt(told, "event")), (Dictionary{{"name", "httpPost"},
                                                             {"outcome", "dropped"},
                                                             {"reason", "sampledOut"},
                                                             {"address", Value()},
                                                             {"record", Value()}}));
}

TEST_F(ExplainCommand, ASessionWithoutBackendsHasAReason) {
  const Dictionary told =
      explained(R"({"environment":"development"})", R"({"category":7,"type":2})");
  EXPECT_EQ(*told.find("environment"), Value("development"));
  EXPECT_EQ(*told.find("reason"), Value("noSectionForEnvironment"));
  EXPECT_TRUE(arrayAt(told, "backends")->empty());
  EXPECT_EQ(*dictionaryAt(told, "event"), (Dictionary{{"backends", Array()},
                                                      {"outcome", "dropped"},
                                                      {"reason", "noSectionForEnvironment"}}));
}

TEST_F(ExplainCommand, AFactThatIsLeftOutIsNoAnswer) {
  // No consent, no user info, and no product family, without which nothing posts.
  Dictionary told = explained(R"({"productFamily":"Bench"})");
  EXPECT_EQ(*first(told).find("state"), Value("sending"));
  EXPECT_EQ(*first(told).find("entry"), Value(0));
  told = explained("{}");
  EXPECT_EQ(arrayAt(told, "backends")->size(), 1u);
  EXPECT_EQ(*first(told).find("name"), Value("uploadServer"));
  told = explained(R"({"productFamily":"B","country":null,"userInfo":{"_clientName":"Player"},
                       "sessionInfo":{"RequireUserInfo":true}})");
  EXPECT_EQ(*first(told).find("reason"), Value("noConsent"));
}

TEST_F(ExplainCommand, ReadsFactsAndEventFromFiles) {
  const std::string facts = "@" + _folder.write("facts", playerWith(""));
  const std::string event = "@" + _folder.write("event", R"({"category":7,"type":2})");
  const Dictionary told = explained(facts, event.c_str());
  EXPECT_EQ(*first(told).find("entry"), Value(1));
  EXPECT_EQ(*first(*dictionaryAt(told, "event")).find("outcome"), Value("held"));
  expectFailure(arguments("@" + _folder.path("none")),
                _folder.path("none") + ": No such file or directory");
}

TEST_F(ExplainCommand, PeopleReadTheSame) {
  const std::string told =
      printedBy(arguments(playerWith(""), R"({"category":7,"type":2,"payload":{"account":"a"}})"));
  EXPECT_THAT(told, HasSubstr("environment release\n"
                              "httpPost: sending (reporting), entry 1, posts to "
                              "https://c.example/p, realtime to https://c.example/now, sampling "
                              "threshold 0.5, batches until 9 events of a category wait\n"));
  EXPECT_THAT(told, HasSubstr("\nevent at httpPost: held (reporting), to https://c.example/p\n{\n"
                              "    \"account\": \"ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72"
                              "b9807785afee48bb\",\n"));
  EXPECT_THAT(printedBy(arguments(R"({"environment":"seed","productFamily":"B"})")),
              HasSubstr("environment seed\nhttpPost: sending"));
}

TEST_F(ExplainCommand, KnowsClientTypesByNumberAndName) {
  for (const char* type : {"7", "parlor", "ZK"}) {
    const auto told = parseJSON(printedBy({"explain", _file, "--client-type", type, "--json"}));
    EXPECT_TRUE(told.value().dictionary()->find("reason")->isNull()) << type;
  }
  for (const char* type : {"0", "4", "18", "-1"}) {
    const auto told =
        parseJSON(printedBy({"explain", _file, "--client-type=" + std::string(type), "--json"}));
    EXPECT_EQ(*told.value().dictionary()->find("reason"), Value("unknownClientType")) << type;
  }
  expectFailure({"explain", _file, "--client-type", "parler"},
                "a client type is a number, a tag or the name of a storebag, not parler "
                "(corvid-storebag explain --help says more)",
                64);
}

TEST_F(ExplainCommand, WrongFactsAndEventsAreWrongUsage) {
  expectWrong(R"({"contry":"DE"})", nullptr, "unknown fact \"contry\": did you mean \"country\"?");
  expectWrong(
      R"({"xyzzy":1})", nullptr,
      "unknown fact \"xyzzy\"; there are country, productFamily, hardwareType, "
      "productVersion, buildVersion, environment, internal, consent, userInfo, sessionInfo, "
      "draw, timeZoneOffset");
  expectWrong(R"({"environment":"realease"})", nullptr,
              "unknown environment \"realease\": did you mean \"release\"?");
  expectWrong(R"({"country":1})", nullptr, "\"country\" must be a text");
  expectWrong(R"({"consent":"yes"})", nullptr, "\"consent\" must be true or false");
  for (const char* draw : {"1", "-0.1", "true", "\"0\""})
    expectWrong(fmt::format("{{\"draw\":{}}}", draw), nullptr,
                "\"draw\" must be a number from 0 to below 1");
  expectWrong("[]", nullptr, "--facts takes a JSON object or @FILE");
  expectWrong("{}", R"({"category":7})", "an event needs \"type\", a number from 0 to 65535");
  expectWrong("{}", R"({"category":7,"type":2,"flags":1})",
              "unknown key of an event \"flags\": did you mean \"flag\"?");
  expectWrong("{}", R"({"category":65536,"type":2})",
              "\"category\" must be a whole number from 0 to 65535");
}

TEST_F(ExplainCommand, TakesUnder50MillisecondsForAStorebagWith500Entries) {
  Array entries;
  for (int i = 0; i < 500; ++i)
    entries.push_back(
        Dictionary{{"client", fmt::format("Client{}", i)},
                   {"post_url", fmt::format("https://c.example/{}", i)},
                   {"locale_whitelist", Array{"DE", "AT", "US", "FR"}},
                   {"sampling_threshold", 0.5},
                   {"event_threshold", 49},
                   {"filters", Array{Dictionary{{"key", "a"}, {"action", "remove"}}}}});
  _folder.write("storebag",
                writeXMLPropertyList(Dictionary{
                    {"version", "1"},
                    {"release", Dictionary{{"httpPost", Dictionary{{"clients", entries}}}}}}));
  const std::string facts = R"({"productFamily":"B","country":"DE","consent":true,
                      "sessionInfo":{"RequireUserInfo":true},
                      "userInfo":{"_clientName":"Client499"}})";
  const std::string event = R"({"category":7,"type":2})";
  EXPECT_EQ(*first(explained(facts, event.c_str())).find("entry"), Value(499));
  EXPECT_LT(processorMilliseconds({"explain", _folder.path("storebag"), "--client-type", "tessel",
                                   "--facts", facts, "--event", event},
                                  0),
            isSlowBuild ? 1000 : 50);
}

}  // namespace
}  // namespace corvid
