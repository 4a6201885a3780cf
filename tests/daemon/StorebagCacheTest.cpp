#include <chrono>
#include <future>
#include <thread>

#include "tests/daemon/AgentFixture.h"

namespace corvid {
namespace {

using std::chrono::microseconds;
using std::chrono::seconds;

constexpr std::int32_t lumen = 5;
constexpr std::int32_t tessel = 6;

class StorebagCache : public AgentTest {
 protected:
  static Dictionary bag(const std::string& mark) {
    return {{"metrix", Dictionary{{"mark", mark}}}};
  }

  void serve(const std::string& mark, std::int32_t maxAge,
             std::optional<std::string> lastModified = std::nullopt) {
    answerFetch = [=](std::int32_t) {
      return FetchedStorebag{.storebag = bag(mark),
                             .maxAge = maxAge,
                             .version = "version of " + mark,
                             .lastModified = lastModified};
    };
  }
  void fail(std::int32_t maxAge = 0) {
    answerFetch = [=](std::int32_t) { return FetchedStorebag{.maxAge = maxAge}; };
  }
  // As a fetch tells that it failed.
  void failWithReason() {
    answerFetch = [](std::int32_t) {
      return FetchedStorebag{.fault = StorebagFault{Reason::storebagUnreachable}};
    };
  }
  void serveWithoutVersion() {
    answerFetch = [](std::int32_t) {
      return FetchedStorebag{.storebag = bag("new"), .maxAge = 5, .lastModified = "today"};
    };
  }
  void answerNotModified(std::int32_t maxAge) {
    answerFetch = [=](std::int32_t) {
      return FetchedStorebag{.maxAge = maxAge, .notModified = true};
    };
  }
  std::optional<Dictionary> storebag() { return agent->storebagForSession(session).value(); }
  std::optional<std::string> version() { return agent->storebagVersionForSession(session); }

  CorviddSession& session = connectAs(7, lumen);
};

TEST_F(StorebagCache, TheFirstRequestFetches) {
  serve("one", 600);
  log.clear();
  EXPECT_EQ(storebag(), bag("one"));
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].clientType, lumen);
  EXPECT_EQ(fetches[0].lastModified, std::nullopt);
  EXPECT_EQ(log.texts(LogLevel::debug),
            (std::vector<std::string>{
                "storebagForSession: Retrieving storebag for session 7 with client type 5",
                "fetchAndCacheStorebag: Fetching storebag for client type 5",
                "fetchAndCacheStorebag: Storebag max age: 600 seconds"}));
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST_F(StorebagCache, AFreshStorebagIsServedWithoutAFetch) {
  serve("one", 600);
  storebag();
  serve("two", 600);
  platform.clock->advance(seconds(600) - microseconds(1000));
  log.clear();
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(fetches.size(), 1u);
  EXPECT_EQ(log.texts(LogLevel::debug),
            (std::vector<std::string>{
                "storebagForSession: Retrieving storebag for session 7 with client type 5",
                "storebagForSession: Cached storebag found for client type 5"}));
}

TEST_F(StorebagCache, AStorebagAsOldAsItsMaxAgeIsFetchedAnew) {
  serve("one", 600);
  storebag();
  serve("two", 600);
  platform.clock->advance(seconds(600));
  EXPECT_EQ(storebag(), bag("two"));
  EXPECT_EQ(fetches.size(), 2u);
}

TEST_F(StorebagCache, TheAgeCountsFromTheEndOfTheFetch) {
  answerFetch = [this](std::int32_t) {
    platform.clock->advance(seconds(10));
    return FetchedStorebag{.storebag = bag("slow"), .maxAge = 600, .version = "1"};
  };
  storebag();
  platform.clock->advance(seconds(599));
  storebag();
  EXPECT_EQ(fetches.size(), 1u);
}

TEST_F(StorebagCache, AnExpiredStorebagIsFetchedAtOnceWithoutAMinimumWait) {
  serve("one", 1);
  storebag();
  platform.clock->advance(seconds(2));
  storebag();
  EXPECT_EQ(fetches.size(), 2u);
}

TEST_F(StorebagCache, AMaxAgeOfZeroFetchesAtEveryRequestWithTheStoredLastModified) {
  serve("one", 0, "Tue, 14 Nov 2023 22:13:20 GMT");
  storebag();
  storebag();
  storebag();
  ASSERT_EQ(fetches.size(), 3u);
  EXPECT_EQ(fetches[0].lastModified, std::nullopt);
  EXPECT_EQ(fetches[1].lastModified, "Tue, 14 Nov 2023 22:13:20 GMT");
  EXPECT_EQ(fetches[2].lastModified, "Tue, 14 Nov 2023 22:13:20 GMT");
}

TEST_F(StorebagCache, ANegativeMaxAgeFetchesAtEveryRequest) {
  serve("one", -5);
  storebag();
  storebag();
  EXPECT_EQ(fetches.size(), 2u);
}

TEST_F(StorebagCache, TheAgeCountsInBothDirections) {
  serve("one", 600);
  storebag();
  platform.clock->advance(-seconds(599));
  storebag();
  EXPECT_EQ(fetches.size(), 1u);
  platform.clock->advance(-seconds(1));
  storebag();
  EXPECT_EQ(fetches.size(), 2u);
}

TEST_F(StorebagCache, AFailedFetchIsAnErrorAndYieldsNothing) {
  fail();
  log.clear();
  EXPECT_EQ(storebag(), std::nullopt);
  EXPECT_EQ(version(), std::nullopt);
  EXPECT_EQ(log.texts(LogLevel::error),
            std::vector<std::string>{
                "fetchAndCacheStorebag: Unable to fetch storebag for client type 5"});
  EXPECT_TRUE(log.has(LogLevel::debug, "fetchAndCacheStorebag: Storebag max age: 0 seconds"));
}

TEST_F(StorebagCache, AfterAFailureNothingIsFetchedFor900Seconds) {
  fail();
  storebag();
  serve("one", 600);
  platform.clock->advance(seconds(899));
  log.clear();
  EXPECT_EQ(storebag(), std::nullopt);
  EXPECT_EQ(fetches.size(), 1u);
  EXPECT_EQ(
      log.texts(LogLevel::info),
      std::vector<std::string>{
          "storebagForSession: Not fetching storebag for client type 5 - must wait 900 seconds between attempts"});
}

TEST_F(StorebagCache, TheWaitEndsAfter900Seconds) {
  fail();
  storebag();
  serve("one", 600);
  platform.clock->advance(seconds(900));
  EXPECT_EQ(storebag(), bag("one"));
}

TEST_F(StorebagCache, AForgottenPauseLetsTheNextRequestFetchAndOnlyThat) {
  failWithReason();
  storebag();
  agent->storebags().forgetPauses();
  EXPECT_TRUE(agent->storebags().of("lumen").refreshIsWished);
  storebag();
  EXPECT_EQ(fetches.size(), 2u);
  storebag();
  EXPECT_EQ(fetches.size(), 2u) << "the new failure has its own pause";
}

TEST_F(StorebagCache, AFreshStorebagStaysFreshWhenPausesAreForgotten) {
  serve("one", 600);
  storebag();
  agent->storebags().forgetPauses();
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(fetches.size(), 1u);
}

TEST_F(StorebagCache, AFailureThatReportsAMaxAgeStillWaits900Seconds) {
  fail(86400);
  storebag();
  serve("one", 600);
  platform.clock->advance(seconds(899));
  EXPECT_EQ(storebag(), std::nullopt);
  platform.clock->advance(seconds(2));
  EXPECT_EQ(storebag(), bag("one"));
}

TEST_F(StorebagCache, AFailureKeepsTheOlderStorebagAndItsVersion) {
  serve("one", 600);
  storebag();
  fail();
  platform.clock->advance(seconds(601));
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(version(), "version of one");
  platform.clock->advance(seconds(899));
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(fetches.size(), 2u);
  serve("two", 600);
  platform.clock->advance(seconds(2));
  EXPECT_EQ(storebag(), bag("two"));
  EXPECT_EQ(version(), "version of two");
}

TEST_F(StorebagCache, WhileAFailureLastsTheOlderStorebagIsServedWithTheWaitLogged) {
  serve("one", 600);
  storebag();
  fail();
  platform.clock->advance(seconds(601));
  storebag();
  log.clear();
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(
      log.texts(LogLevel::info),
      std::vector<std::string>{
          "storebagForSession: Not fetching storebag for client type 5 - must wait 900 seconds between attempts"});
  EXPECT_FALSE(
      log.has(LogLevel::debug, "storebagForSession: Cached storebag found for client type 5"));
}

TEST_F(StorebagCache, NotModifiedWithoutAnEarlierStorebagIsASuccessWithNothing) {
  answerNotModified(600);
  log.clear();
  EXPECT_EQ(storebag(), std::nullopt);
  EXPECT_TRUE(log.texts(LogLevel::error).empty());
  EXPECT_EQ(storebag(), std::nullopt);
  EXPECT_EQ(fetches.size(), 1u);
}

TEST_F(StorebagCache, NotModifiedKeepsTheStorebagAndRestartsItsFreshness) {
  serve("one", 600, "yesterday");
  storebag();
  answerNotModified(300);
  platform.clock->advance(seconds(601));
  log.clear();
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(version(), "version of one");
  EXPECT_TRUE(log.texts(LogLevel::error).empty());
  EXPECT_TRUE(log.has(LogLevel::debug, "fetchAndCacheStorebag: Storebag max age: 300 seconds"));

  platform.clock->advance(seconds(299));
  storebag();
  EXPECT_EQ(fetches.size(), 2u);
  platform.clock->advance(seconds(1));
  storebag();
  ASSERT_EQ(fetches.size(), 3u);
  EXPECT_EQ(fetches[2].lastModified, "yesterday");
}

TEST_F(StorebagCache, NotModifiedEndsAFailure) {
  serve("one", 0, "yesterday");
  storebag();
  fail();
  storebag();
  answerNotModified(600);
  platform.clock->advance(seconds(901));
  storebag();
  log.clear();
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_TRUE(
      log.has(LogLevel::debug, "storebagForSession: Cached storebag found for client type 5"));
}

TEST_F(StorebagCache, LastModifiedIsReplacedOnlyByANewOne) {
  serve("one", 0, "first");
  storebag();
  serve("one", 0);
  storebag();
  serve("one", 0, "second");
  storebag();
  storebag();
  ASSERT_EQ(fetches.size(), 4u);
  EXPECT_EQ(fetches[1].lastModified, "first");
  EXPECT_EQ(fetches[2].lastModified, "first");
  EXPECT_EQ(fetches[3].lastModified, "second");
}

TEST_F(StorebagCache, AFailureMayStillReportLastModified) {
  answerFetch = [](std::int32_t) { return FetchedStorebag{.maxAge = 0, .lastModified = "today"}; };
  storebag();
  platform.clock->advance(seconds(901));
  storebag();
  EXPECT_EQ(fetches[1].lastModified, "today");
}

TEST_F(StorebagCache, UnchangedWhileNothingIsKeptMakesTheNextAttemptUnconditional) {
  answerFetch = [](std::int32_t) { return FetchedStorebag{.maxAge = 0, .lastModified = "today"}; };
  storebag();
  answerNotModified(60);
  platform.clock->advance(seconds(901));
  EXPECT_EQ(storebag(), std::nullopt);
  serve("one", 600);
  platform.clock->advance(seconds(61));
  EXPECT_EQ(storebag(), bag("one"));
  ASSERT_EQ(fetches.size(), 3u);
  EXPECT_EQ(fetches[1].lastModified, "today");
  EXPECT_EQ(fetches[2].lastModified, std::nullopt);
}

TEST_F(StorebagCache, ClientTypesOfOneNameShareARecord) {
  serve("one", 600);
  for (const std::int32_t clientType : {tessel, 14, 15})
    EXPECT_EQ(agent->storebagForSession(connectAs(1, clientType)).value(), bag("one"));
  EXPECT_EQ(fetches.size(), 1u);
  EXPECT_EQ(agent->storebagVersionForSession(connectAs(2, 14)), "version of one");
}

TEST_F(StorebagCache, ClientTypesOfOtherNamesDoNot) {
  serve("one", 600);
  storebag();
  serve("two", 600);
  EXPECT_EQ(agent->storebagForSession(connectAs(1, tessel)).value(), bag("two"));
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(fetches.size(), 2u);
}

TEST_F(StorebagCache, TheVersionIsNeverFetched) {
  EXPECT_EQ(version(), std::nullopt);
  EXPECT_TRUE(fetches.empty());
  serve("one", 0);
  storebag();
  EXPECT_EQ(version(), "version of one");
  EXPECT_EQ(fetches.size(), 1u);
}

TEST_F(StorebagCache, AClientTypeWithoutANameFetchesEachTimeAndGetsNothing) {
  serve("one", 600, "yesterday");
  for (const std::int32_t clientType : {1, 4, 18, -1}) {
    CorviddSession& nameless = connectAs(1, clientType);
    fetches.clear();
    EXPECT_EQ(agent->storebagForSession(nameless).value(), std::nullopt);
    EXPECT_EQ(agent->storebagForSession(nameless).value(), std::nullopt);
    EXPECT_EQ(agent->storebagVersionForSession(nameless), std::nullopt);
    ASSERT_EQ(fetches.size(), 2u);
    EXPECT_EQ(fetches[1].clientType, clientType);
    EXPECT_EQ(fetches[1].lastModified, std::nullopt);
  }
}

TEST_F(StorebagCache, AfterAFailureTypesWithoutANamePauseForThatUser) {
  fail();
  becomeUser(1001);
  EXPECT_EQ(agent->storebagForSession(connectAs(1, 1)).value(), std::nullopt);
  fetches.clear();
  log.clear();
  EXPECT_EQ(agent->storebagForSession(connectAs(2, 18)).value(), std::nullopt);
  EXPECT_TRUE(fetches.empty());
  EXPECT_TRUE(
      log.has(LogLevel::info,
              "storebagForSession: Not fetching storebag for client type 18 - must wait 900 "
              "seconds between attempts"));
  EXPECT_EQ(storebag(), std::nullopt);
  EXPECT_EQ(fetches.size(), 1u) << "a type with a name has a pause of its own";
  becomeUser(1002);
  EXPECT_TRUE(agent->storebagForSession(connectAs(3, 18)));
  EXPECT_EQ(fetches.size(), 2u) << "another user's";
  becomeUser(1001);
  platform.clock->advance(seconds(901));
  EXPECT_TRUE(agent->storebagForSession(connectAs(4, 18)));
  EXPECT_EQ(fetches.size(), 3u);

  EXPECT_TRUE(agent->storebagForSession(connectAs(5, 18)));
  EXPECT_EQ(fetches.size(), 3u);
  agent->storebags().forgetPauses();
  EXPECT_TRUE(agent->storebagForSession(connectAs(6, 18)));
  EXPECT_EQ(fetches.size(), 4u) << "no longer";
}

TEST_F(StorebagCache, AUserWhoHasMoreFetchedThanIsFairWaitsWithoutHoldingUpOthers) {
  serve("one", 0);  // never fresh
  for (int i = 0; i < FetchPace::burst; ++i) storebag();
  becomeUser(1001);
  CorviddSession& bystander = connectAs(8, lumen);
  std::thread greedy([&] { storebag(); });
  ASSERT_TRUE(platform.clock->awaitSleeper(FetchPace::interval));
  EXPECT_EQ(agent->storebagForSession(bystander).value(), bag("one"));
  EXPECT_EQ(fetches.size(), FetchPace::burst + 1u);
  platform.clock->advance(FetchPace::interval);
  greedy.join();
  EXPECT_EQ(fetches.size(), FetchPace::burst + 2u);
}

TEST_F(StorebagCache, WhatIsFreshIsNotPaced) {
  serve("one", 600);
  for (int i = 0; i < 10 * FetchPace::burst; ++i) storebag();
  EXPECT_EQ(fetches.size(), 1u);
}

TEST_F(StorebagCache, TheClientTypeIsReadAsASigned32BitInteger) {
  serve("one", 600);
  EXPECT_TRUE(agent->storebagForSession(sessionOf(*connect())));
  EXPECT_EQ(fetches.back().clientType, 0);
  CorviddSession& text = sessionOf(*connect());
  text.setSessionInfo(Dictionary{{"ClientType", "5"}}, std::nullopt, {}, false);
  EXPECT_EQ(agent->storebagForSession(text).value(), bag("one"));
  EXPECT_EQ(fetches.back().clientType, 5);
}

TEST_F(StorebagCache, AStorebagWithoutAVersionFailsTheRequestAndLeavesTheRecordAsItWas) {
  serve("one", 600, "yesterday");
  storebag();
  platform.clock->advance(seconds(601));
  serveWithoutVersion();
  log.clear();
  EXPECT_FALSE(agent->storebagForSession(session));
  EXPECT_EQ(log.texts(LogLevel::debug),
            (std::vector<std::string>{
                "storebagForSession: Retrieving storebag for session 7 with client type 5",
                "fetchAndCacheStorebag: Fetching storebag for client type 5"}));
  EXPECT_EQ(version(), "version of one");
  answerNotModified(600);
  EXPECT_EQ(storebag(), bag("one"));
  EXPECT_EQ(fetches.back().lastModified, "yesterday");
}

TEST_F(StorebagCache, AFirstStorebagWithoutAVersionDoesNotHoldBackTheNextFetch) {
  serveWithoutVersion();
  EXPECT_FALSE(agent->storebagForSession(session));
  EXPECT_EQ(version(), std::nullopt);
  serve("one", 600);
  EXPECT_EQ(storebag(), bag("one"));
}

TEST_F(StorebagCache, AStorebagWithoutAVersionFailsAClientTypeWithoutANameToo) {
  serveWithoutVersion();
  EXPECT_FALSE(agent->storebagForSession(connectAs(1, 18)));
}

TEST_F(StorebagCache, AStorebagWithoutAVersionReleasesTheMutex) {
  serveWithoutVersion();
  EXPECT_FALSE(agent->storebagForSession(session));
  auto other = std::async(std::launch::async, [this] { return version(); });
  EXPECT_EQ(other.wait_for(seconds(30)), std::future_status::ready);
}

TEST_F(StorebagCache, WithoutAnInjectedFetchTheConfigurationServerIsAsked) {
  auto real = CorviddAgent::create();
  platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::error(7, "connection refused"); });
  EXPECT_EQ(real->storebagForSession(session).value(), std::nullopt);
  ASSERT_EQ(platform.http->requests().size(), 1u);
  EXPECT_NE(platform.http->requests()[0].url.find("/lumen?version="), std::string::npos);
  EXPECT_TRUE(log.has(LogLevel::error,
                      "fetchAndCacheStorebag: Unable to fetch storebag for client type 5"));
}

TEST_F(StorebagCache, ClientType0AsksNoServer) {
  auto real = CorviddAgent::create();
  EXPECT_EQ(real->storebagForSession(connectAs(1, 0)).value(), std::nullopt);
  EXPECT_TRUE(platform.http->requests().empty());
}

}  // namespace
}  // namespace corvid
