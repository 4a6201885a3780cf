// The model by itself, against examples of the documents.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Reading.h"
#include "tests/simulation/Comparison.h"
#include "tests/simulation/Model.h"

namespace corvid::simulation {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

class SimulationModel : public testing::Test {
 protected:
  SimulationModel() {
    publish({});
    begin();
  }
  // The only entry of the storebag of client type 5, with these keys changed.
  void publish(const Dictionary& changes, const char* lastModified = nullptr) {
    Dictionary entry{{"post_url", "https://post/"},
                     {"locale_whitelist", Array{"US"}},
                     {"filters", Array{}},
                     {"sampling_threshold", 1},
                     {"event_threshold", 49}};
    entry.addEntriesFrom(changes);
    const Dictionary profile{{"clients", Array{entry}}};
    _storebag.content = {{"version", "1"}, {"release", Dictionary{{"httpPost", profile}}}};
    server.publish("lumen", _storebag,
                   lastModified ? std::optional<std::string>(lastModified) : std::nullopt);
  }
  void begin() { model.begin(facts); }
  void pass(double seconds) {
    facts.begin += seconds;
    facts.now = facts.begin;
    begin();
  }
  Step take() { return model.takeStep(posts); }
  // A client that has described itself and started; its step has been taken.
  void come(int client, const char* id, Dictionary info = {}) {
    Dictionary whole{
        {"SessionID", client}, {"ClientType", 5}, {"RequireUserInfo", true}, {"BatchEvent", true}};
    whole.addEntriesFrom(info);
    model.connect(client, id, 1000, false);
    model.setSessionInfo(client, whole, Dictionary{{"_clientName", "Player"}}, false);
    model.startConfig(client);
  }
  void send(int client, Dictionary payload = {{"x", 1}}, int flag = 0) {
    model.send(client, {{"Category", 7}, {"Type", 2}, {"Flag", flag}, {"Payload", payload}});
  }
  static const Array& eventsOf(const Post& post) { return *arrayAt(post.body, "events"); }
  static std::string textOf(const Value& event, const char* key) {
    return textAt(*event.dictionary(), key).value_or("(none)");
  }

  RandomInputs dice{1};
  StorebagServer server{dice};
  Facts facts;
  Model model{server};
  std::vector<ExpectedPost> posts;

 private:
  Publication _storebag;
};

TEST_F(SimulationModel, AStorebagIsFetchedOnceWithinItsAge) {
  come(1, "A");
  EXPECT_THAT(take().fetches,
              ElementsAre(Fetch{facts.device.storebagURL + "/lumen?version=8.0", std::nullopt}));
  pass(86399);
  come(2, "B");
  EXPECT_THAT(take().fetches, SizeIs(0));
  pass(1);
  come(3, "C");
  EXPECT_THAT(take().fetches, SizeIs(1));
}

TEST_F(SimulationModel, AfterAFailureNobodyAsksForAQuarterOfAnHour) {
  server.mood.kind = ServerMood::Kind::unreachable;
  come(1, "A");
  const Step failed = take();
  EXPECT_EQ(failed.states.at(1), "storebagUnreachable");
  EXPECT_EQ(failed.answers.back().anyOf.front(), "no states");
  server.mood.kind = ServerMood::Kind::well;
  pass(899);
  come(2, "B");
  EXPECT_THAT(take().fetches, SizeIs(0));
  pass(1);
  come(3, "C");
  const Step later = take();
  EXPECT_THAT(later.fetches, SizeIs(1));
  EXPECT_EQ(later.states.at(3), "httpPost sending reporting reports; ");
}

TEST_F(SimulationModel, AnUnchangedStorebagGoesOn) {
  publish({}, "Monday");
  come(1, "A");
  take();
  pass(86400);
  come(2, "B");
  const Step step = take();
  ASSERT_THAT(step.fetches, SizeIs(1));
  EXPECT_EQ(step.fetches[0].ifModifiedSince, "Monday");
  EXPECT_EQ(step.states.at(2), "httpPost sending reporting reports; ");
}

TEST_F(SimulationModel, ABatchLeavesAtAFlushWithTheStartMessageFirst) {
  come(1, "A");
  send(1);
  EXPECT_EQ(take().sums, (Sums{{"accepted", 2}, {"held", 2}}));
  model.flush(1);
  const Step step = take();
  ASSERT_THAT(step.posts, SizeIs(1));
  const Array& events = eventsOf(step.posts[0]);
  ASSERT_THAT(events, SizeIs(2));
  EXPECT_EQ(int32At(*events[0].dictionary(), "_method"), 0);
  EXPECT_EQ(int32At(*events[1].dictionary(), "_eventNumber"), 2);
  EXPECT_EQ(step.sums, (Sums{{"accepted", 2}, {"underWay", 2}}));
  model.answer(posts[0], {.status = 404});
  EXPECT_EQ(take().sums, (Sums{{"accepted", 2}, {"refused 404", 2}}));
}

TEST_F(SimulationModel, TheEventThatFindsItsBatchFullIsLost) {
  publish({{"event_threshold", 0}});
  come(1, "A");
  send(1, {{"x", 1}});
  send(1, {{"x", 2}});
  const Step step = take();
  ASSERT_THAT(step.posts, SizeIs(1));
  EXPECT_THAT(eventsOf(step.posts[0]), SizeIs(2));
  EXPECT_EQ(step.sums, (Sums{{"accepted", 3}, {"underWay", 2}, {"dropped batchFull", 1}}));
}

TEST_F(SimulationModel, AServersFaultEndsReporting) {
  come(1, "A", {{"BatchEvent", false}});
  take();
  model.answer(posts.at(0), {.status = 503});
  send(1);
  const Step step = take();
  EXPECT_EQ(step.states.at(1), "httpPost disabled disabledByServer; ");
  EXPECT_EQ(step.sums,
            (Sums{{"accepted", 2}, {"refused 503", 1}, {"dropped disabledByServer", 1}}));
}

TEST_F(SimulationModel, WithoutConsentNothingLeaves) {
  facts.consents = false;
  begin();
  come(1, "A");
  send(1, {}, 3);
  const Step step = take();
  EXPECT_THAT(step.posts, SizeIs(0));
  EXPECT_EQ(step.sums, (Sums{{"accepted", 2}, {"dropped noConsent", 2}}));
}

TEST_F(SimulationModel, ASampledOutSessionIsHeldUntilAFlagLiftsIt) {
  publish({{"sampling_threshold", 0.25}});
  come(1, "A");
  EXPECT_EQ(take().states.at(1), "httpPost held sampledOut reports; ");
  send(1, {}, 3);
  const Step step = take();
  EXPECT_EQ(step.states.at(1), "httpPost sending reporting reports; ");
  ASSERT_THAT(step.posts, SizeIs(2));
  EXPECT_THAT(eventsOf(step.posts[0]), SizeIs(1)) << "the start message";
}

TEST_F(SimulationModel, FiltersRemoveAndDigest) {
  publish({{"filters", Array{Dictionary{{"key", "SECRET"}, {"action", "remove"}},
                             Dictionary{{"key", "account"}, {"action", "sha256"}}}}});
  come(1, "A", {{"BatchEvent", false}});
  take();
  send(1, {{"secret", "s"}, {"Account", ""}});
  const Step step = take();
  const Value& event = eventsOf(step.posts.at(0)).at(0);
  EXPECT_EQ(textOf(event, "secret"), "(none)");
  EXPECT_EQ(textOf(event, "Account"),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(SimulationModel, AChildCarriesItsParentsIDAndState) {
  come(1, "A");
  publish({{"hierarchy", 1}, {"sampling_threshold", 0}, {"override_sampling", 0}});
  pass(86400);
  come(2, "B", {{"BatchEvent", false}});
  const Step step = take();
  EXPECT_EQ(step.states.at(2), "httpPost sending reporting reports; ") << "sampled out by itself";
  ASSERT_THAT(step.posts, SizeIs(1));
  EXPECT_EQ(textOf(eventsOf(step.posts[0]).at(0), "_sessionID"), "A.B");
}

TEST_F(SimulationModel, AnAggregatorAboveHearsTheChain) {
  come(1, "A");
  model.setSessionInfo(1, {{"ClientType", 5}}, Dictionary{{"_clientName", "Player"}}, true);
  publish({{"hierarchy", 1}});
  pass(86400);
  come(2, "B");
  take();
  send(2, {{"x", 1}});
  const Step step = take();
  ASSERT_THAT(step.deliveries, SizeIs(1));
  EXPECT_EQ(step.deliveries[0].client, 1);
  EXPECT_EQ(step.deliveries[0].category, 7);
  EXPECT_EQ(textAt(*step.deliveries[0].payload, "_clientName"), "Player");
}

TEST(SimulationComparison, NamesTheFirstDifference) {
  Step expected;
  expected.posts = {{.url = "https://a/", .body = {{"x", 1}}, .backend = "httpPost"}};
  Step seen = expected;
  std::vector<std::size_t> places;
  EXPECT_EQ(difference(expected, seen, places), std::nullopt);
  EXPECT_THAT(places, ElementsAre(0));
  seen.posts[0].body.set("x", 2);
  EXPECT_EQ(difference(expected, seen, places), "post to https://a/.x: 1 expected, 2 seen");
  seen.posts.clear();
  EXPECT_EQ(difference(expected, seen, places), "post to https://a/ is missing: {\"x\":1}");
  EXPECT_EQ(difference(seen, expected, places), "post to https://a/ is too much: {\"x\":1}");
  seen = expected;
  seen.sums["held"] = 1;
  EXPECT_EQ(difference(expected, seen, places), "ledger: held: \"(none)\" expected, \"1\" seen");
}

TEST(SimulationComparison, LetsPostsOfTwoBackendsComeInAnyOrderButNotOfOne) {
  const Post first{.url = "https://a/", .backend = "httpPost"};
  const Post second{.url = "https://b/", .backend = "httpPost"};
  const Post other{.url = "https://c/", .backend = "httpPost2"};
  std::vector<std::size_t> places;
  EXPECT_EQ(
      difference({.posts = {first, second, other}}, {.posts = {other, first, second}}, places),
      std::nullopt);
  EXPECT_THAT(places, ElementsAre(1, 2, 0));
  EXPECT_EQ(difference({.posts = {first, second}}, {.posts = {second, first}}, places),
            "posts of httpPost in another order");
}

}  // namespace
}  // namespace corvid::simulation
