// Creation, and where records go.
#include "protocol/Keys.h"
#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

struct PostAddressTest : PostBackendFixture {
  void setDefault(const char* key, Value value) {
    platform.preferences->setValue(corvidSuite, key, std::move(value));
  }
  // Where an ordinary and a realtime event of the backend go.
  std::pair<std::string, std::string> targets(HTTPSPostBackend& backend) {
    const std::size_t before = requests().size();
    send(backend, {}, 0);
    send(backend, {}, 1);
    const auto all = requests();
    if (all.size() != before + 2) return {"nothing", "nothing"};
    return {all[before].url, all[before + 1].url};
  }
};

using Targets = std::pair<std::string, std::string>;

TEST_F(PostAddressTest, NeedsProfileFamilyAndClientList) {
  const Dictionary profile{{"clients", Array{}}};
  EXPECT_TRUE(HTTPSPostBackend::initWithName("httpPost", &profile, shared()));
  EXPECT_FALSE(HTTPSPostBackend::initWithName("httpPost", nullptr, shared()));
  EXPECT_FALSE(HTTPSPostBackend::initWithName("httpPost", &profile, shared(BackendIdentity{})));
  EXPECT_TRUE(platform.log.lines().empty());
  for (const Dictionary& without : {Dictionary{}, Dictionary{{"clients", Dictionary{}}}}) {
    platform.log.clear();
    EXPECT_FALSE(HTTPSPostBackend::initWithName("httpPost", &without, shared()));
    EXPECT_TRUE(platform.log.has(LogLevel::error,
                                 "HTTPSPostBackend(initWithName): can't find the client list."));
  }
}

TEST_F(PostAddressTest, TheDisplayAddressComesFromTheProfileItself) {
  EXPECT_EQ(make({{"clients", Array{}}, {"display_url", "https://display.test"}})->displayURL(),
            "https://display.test");
  EXPECT_EQ(make({{"clients", Array{Dictionary{{"display_url", "x"}}}}})->displayURL(),
            std::nullopt);
  EXPECT_EQ(make({{"clients", Array{}}, {"display_url", 5}})->displayURL(), std::nullopt);
}

TEST_F(PostAddressTest, UserDefaultsSetTheAddressesAndAreLogged) {
  setDefault("httpsPostURL", "https://default.test/b");
  setDefault("httpsRealtimePostURL", "https://default.test/r");
  const auto backend = make({{"clients", Array{}}});
  EXPECT_EQ(backend->postURL(), "https://default.test/b");
  EXPECT_EQ(platform.log.texts(LogLevel::debug),
            (std::vector<std::string>{
                "HTTPSPostBackend(initWithName): Using user default 'https://default.test/b' for "
                "postURL",
                "HTTPSPostBackend(initWithName): Using user default 'https://default.test/r' for "
                "realtimePostURL"}));
}

TEST_F(PostAddressTest, WithoutUserDefaultsThereIsNoAddressYet) {
  const auto backend = make({{"clients", Array{}}});
  EXPECT_EQ(backend->postURL(), std::nullopt);
  setDefault("httpsPostURL", 7);
  EXPECT_EQ(make({{"clients", Array{}}})->postURL(), std::nullopt) << "no string";
  EXPECT_TRUE(platform.log.lines().empty());
}

TEST_F(PostAddressTest, TheAddressIsAProperty) {
  const auto backend = make({{"clients", Array{}}});
  backend->setPostURL("https://set.test");
  EXPECT_EQ(backend->postURL(), "https://set.test");
}

TEST_F(PostAddressTest, TheEntrySuppliesBothAddresses) {
  const auto backend = makeFor(openEntry());
  EXPECT_EQ(linesOf("HTTPSPostBackend(updatePostLink)"),
            (std::vector<std::string>{
                "HTTPSPostBackend(updatePostLink): Storebag 'https://events.test/batch' for "
                "postURL",
                "HTTPSPostBackend(updatePostLink): Storebag 'https://events.test/now' for "
                "realtimePostURL"}));
  EXPECT_EQ(targets(*backend), Targets(batchURL, realtimeURL));
}

TEST_F(PostAddressTest, TheRealtimeAddressDefaultsToTheBatchAddress) {
  const auto backend = makeFor(openEntryWithout("realtime_post_url"));
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "HTTPSPostBackend(updatePostLink): realtimePostURL defaults to "
                               "postURL 'https://events.test/batch'"));
  EXPECT_EQ(targets(*backend), Targets(batchURL, batchURL));
}

TEST_F(PostAddressTest, WithoutAnyAddressTheRealtimeOneIsAbsentToo) {
  const auto backend = makeFor(Dictionary{
      {"locale_whitelist", Array{"US"}}, {"filters", Array{}}, {"sampling_threshold", 1}});
  EXPECT_TRUE(platform.log.has(
      LogLevel::debug,
      "HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL '(null)'"));
  EXPECT_EQ(targets(*backend), Targets("nothing", "nothing"));
}

TEST_F(PostAddressTest, AnEntryWithoutAnAddressLeavesTheOldOne) {
  Array entries{openEntryWith("client", "player"), Dictionary{{"client", "other"},
                                                              {"locale_whitelist", Array{"US"}},
                                                              {"filters", Array{}},
                                                              {"sampling_threshold", 1}}};
  const auto backend = makeFor(entries);
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  EXPECT_EQ(targets(*backend), Targets(batchURL, batchURL)) << "the realtime one is rewritten";
}

TEST_F(PostAddressTest, AUserDefaultBatchAddressSurvivesEveryUpdate) {
  setDefault("httpsPostURL", "https://default.test/b");
  const auto backend = makeFor(openEntry());
  EXPECT_EQ(targets(*backend), Targets("https://default.test/b", realtimeURL))
      << "the realtime address still follows the storebag";
  backend->updateState();
  EXPECT_EQ(targets(*backend), Targets("https://default.test/b", realtimeURL));
  EXPECT_EQ(targets(*makeFor(openEntryWithout("realtime_post_url"))),
            Targets("https://default.test/b", "https://default.test/b"));
}

TEST_F(PostAddressTest, AUserDefaultRealtimeAddressSurvivesEveryUpdate) {
  setDefault("httpsRealtimePostURL", "https://default.test/r");
  const auto backend = makeFor(openEntry());
  backend->updateState();
  EXPECT_EQ(targets(*backend), Targets(batchURL, "https://default.test/r"));
}

TEST_F(PostAddressTest, AUserDefaultThatWasClearedGivesWayToTheStorebag) {
  setDefault("httpsPostURL", "https://default.test/b");
  const auto backend = make({{"clients", Array{openEntry()}}});
  backend->setPostURL(std::nullopt);
  backend->updateState();
  EXPECT_EQ(backend->postURL(), batchURL);
  backend->setPostURL("https://other.test");
  backend->updateState();
  EXPECT_EQ(backend->postURL(), batchURL) << "from then on at every update";
}

TEST_F(PostAddressTest, WithoutRequiredUserInfoTheFirstEntryWithABatchAddressServes) {
  sessionInfo.set("RequireUserInfo", false);
  userInfo.reset();
  const auto backend = makeFor(Array{
      "no entry",
      Dictionary{{"client", "somebody"}, {"realtime_post_url", "https://first.test/r"}},
      Dictionary{{"client", "else"}, {"post_url", "https://second.test/b"}, {"event_threshold", 5}},
      Dictionary{{"post_url", "https://third.test/b"},
                 {"realtime_post_url", "https://third.test/r"}},
  });
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_EQ(targets(*backend), Targets("https://second.test/b", "https://second.test/b"))
      << "every visited entry rewrites the realtime address";
  EXPECT_TRUE(
      platform.log.has(LogLevel::debug, "resetBackendStateWithClient: event_threshold set to 5"));
}

TEST_F(PostAddressTest, WithoutRequiredUserInfoAUserDefaultAddressStillWins) {
  setDefault("httpsPostURL", "https://default.test/b");
  sessionInfo.set("RequireUserInfo", false);
  const auto backend = makeFor(Array{openEntryWith("event_threshold", 5),
                                     Dictionary{{"post_url", "https://second.test/b"},
                                                {"realtime_post_url", "https://second.test/r"},
                                                {"event_threshold", 6}}});
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_EQ(targets(*backend), Targets("https://default.test/b", "https://second.test/r"))
      << "all entries are visited: none supplies the batch address";
  EXPECT_TRUE(
      platform.log.has(LogLevel::debug, "resetBackendStateWithClient: event_threshold set to 0"));
}

TEST_F(PostAddressTest, WithoutRequiredUserInfoAndAnyAddressTheThresholdIsZero) {
  sessionInfo.set("RequireUserInfo", false);
  const auto backend = makeFor(Array{Dictionary{{"event_threshold", 5}}});
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_EQ(linesOf("resetBackendStateWithClient"),
            std::vector<std::string>{"resetBackendStateWithClient: event_threshold set to 0"});
}

}  // namespace
}  // namespace corvid
