// What the cache makes of storebags that outlast the process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon/StorebagCache.h"
#include "tests/config/Signers.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t lumenType = 5;
constexpr std::int32_t parlor = 7;
constexpr std::uint32_t user = 1000;

class KeptStorebag : public testing::Test {
 protected:
  KeptStorebag() {
    platform.files->files[paths.publicKeyFile] = {trustedSigner().publicKeyDER(), {}};
    deployment.keepStorebags = true;
    startAnew();
  }
  // As after the end of a process.
  void startAnew() {
    platform.restart(paths, deployment);
    asked.clear();
    board = std::make_shared<StorebagBoard>();
    cache = std::make_unique<StorebagCache>(
        [this](std::int32_t, const std::optional<std::string>& lastModified) {
          asked.push_back(lastModified);
          return answer;
        },
        board);
  }
  void serve(const std::string& name, const std::string& mark, std::int32_t maxAge) {
    const Dictionary section{{"mark", mark}};
    answer = {.storebag = section,
              .maxAge = maxAge,
              .version = mark,
              .lastModified = "since " + mark,
              .url = storebagURL(name),
              .envelope = enveloped(trustedSigner(), {{"release", section}, {"version", mark}})};
  }
  void goAway() { answer = {.fault = StorebagFault{Reason::storebagUnreachable, "away"}}; }
  std::optional<std::string> request(std::int32_t clientType = lumenType) {
    const auto storebag = cache->storebag(clientType, user);
    EXPECT_TRUE(storebag);
    return cache->version(clientType);
  }

  const ScratchFolder root;
  const Paths paths{root.path()};
  Deployment deployment;
  TestPlatform platform;
  FetchedStorebag answer;
  std::vector<std::optional<std::string>> asked;  // the Last-Modified of each fetch
  std::shared_ptr<StorebagBoard> board;
  std::unique_ptr<StorebagCache> cache;
};

TEST_F(KeptStorebag, InsideItsAgeARestartAsksNobody) {
  serve("lumen", "one", 600);
  EXPECT_EQ(request(), "one");
  platform.clock->advance(seconds(599));
  startAnew();
  EXPECT_FALSE(cache->wouldFetch(lumenType, user));
  EXPECT_EQ(request(), "one");
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_EQ(board->of("lumen").version, "one");
  EXPECT_TRUE(board->of("lumen").key);
}

TEST_F(KeptStorebag, BeyondItsAgeTheRequestIsConditional) {
  serve("lumen", "one", 600);
  request();
  platform.clock->advance(seconds(600));
  startAnew();
  answer = {.maxAge = 300, .notModified = true};
  EXPECT_EQ(request(), "one");
  EXPECT_THAT(asked, ElementsAre("since one"));

  platform.clock->advance(seconds(299));
  startAnew();
  EXPECT_EQ(request(), "one");
  EXPECT_THAT(asked, IsEmpty()) << "the answer counts from then on";
}

TEST_F(KeptStorebag, WhileTheServerIsAwayItGoesOnAndIsMarked) {
  serve("lumen", "one", 600);
  request();
  platform.clock->advance(seconds(600));
  startAnew();
  goAway();
  EXPECT_EQ(request(), "one");
  EXPECT_TRUE(board->of("lumen").fault);
  EXPECT_EQ(board->of("lumen").version, "one");
}

TEST_F(KeptStorebag, ANewOneTakesItsPlace) {
  serve("lumen", "one", 600);
  request();
  platform.clock->advance(seconds(600));
  startAnew();
  serve("lumen", "two", 600);
  EXPECT_EQ(request(), "two");
  startAnew();
  goAway();
  EXPECT_EQ(request(), "two");
}

TEST_F(KeptStorebag, ItTakesThePlaceOfTheDaemonsOwnDefault) {
  const FetchedStorebag builtIn{.storebag = Dictionary{{"mark", "built in"}},
                                .version = "built in",
                                .fault = StorebagFault{Reason::storebagUnreachable, "away"}};
  answer = builtIn;
  EXPECT_EQ(request(parlor), "built in") << "where none is kept";

  startAnew();
  serve("parlor", "one", 600);
  request(parlor);
  platform.clock->advance(seconds(600));
  startAnew();
  answer = builtIn;
  EXPECT_EQ(request(parlor), "one");
  EXPECT_FALSE(board->of("parlor").isFallback);
}

TEST_F(KeptStorebag, WithoutTheSettingARestartAsks) {
  deployment.keepStorebags = false;
  startAnew();
  serve("lumen", "one", 600);
  request();
  startAnew();
  goAway();
  EXPECT_EQ(request(), std::nullopt);
  EXPECT_THAT(asked, ElementsAre(std::nullopt));
}

TEST_F(KeptStorebag, AJitterShortensTheAgeByAShareDrawnForEachFetch) {
  deployment.refreshJitter = 0.5;
  startAnew();
  serve("lumen", "one", 1000);
  platform.random->draw = 0;
  request();
  EXPECT_EQ(board->of("lumen").maxAge, 1000);
  platform.clock->advance(seconds(1000));
  platform.random->draw = 0.5;
  request();
  EXPECT_EQ(board->of("lumen").maxAge, 750);
  platform.clock->advance(seconds(749));
  request();
  EXPECT_EQ(asked.size(), 2u);
  platform.clock->advance(seconds(1));
  request();
  EXPECT_EQ(asked.size(), 3u);
}

TEST_F(KeptStorebag, WithoutAJitterTheAgeIsWhatTheServerSays) {
  serve("lumen", "one", 1000);
  request();
  EXPECT_EQ(board->of("lumen").maxAge, 1000);
}

}  // namespace
}  // namespace corvid
