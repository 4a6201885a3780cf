#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <limits>

#include "config/Environment.h"
#include "tests/config/Signers.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

TEST(ClientTypes, NameTheirStorebags) {
  const std::vector<std::pair<std::int32_t, std::string>> table{
      {5, "lumen"},   {6, "tessel"},  {7, "parlor"},  {8, "orrery"},  {9, "cadence"},
      {10, "quill"},  {11, "parlor"}, {12, "ledger"}, {13, "parlor"}, {14, "tessel"},
      {15, "tessel"}, {16, "folio"},  {17, "reel"},
  };
  for (const auto& [type, name] : table) EXPECT_EQ(storebagNameForClientType(type), name) << type;
}

TEST(ClientTypes, WithoutAStorebagHaveNoName) {
  for (const std::int32_t type : {0, 1, 2, 3, 4, 18, 19, 2147483647, -1, -2147483647 - 1})
    EXPECT_FALSE(storebagNameForClientType(type)) << type;
}

TEST(ClientTypes, HaveTheirTags) {
  const std::vector<std::string_view> tags{
      "ZB", "ZC", "ZDN", "ZF",   "ZG",    "ZH",     "ZJ",       "ZK",      "ZL",
      "ZM", "ZN", "ZP",  "ZQRA", "ZRSTU", "ZJ-VWX", "ZJ-YQBDE", "ZTUVWXY", "ZWXYZB"};
  ASSERT_EQ(tags.size(), 18u);
  for (std::size_t type = 0; type < tags.size(); ++type)
    EXPECT_EQ(clientTagForClientType(static_cast<std::int32_t>(type)), tags[type]) << type;
}

// docs/client.md, whose table has two types a row.
TEST(ClientTypes, StandInTheGuideForClients) {
  std::ifstream file(std::string(CORVID_SOURCE_FOLDER) + "/docs/client.md");
  const std::string guide{std::istreambuf_iterator<char>(file), {}};
  for (std::int32_t type = -1; type < 20; ++type) {
    const auto storebag = storebagNameForClientType(type);
    const std::string row = fmt::format("| {} | {} | `{}` |", type, storebag.value_or("none"),
                                        clientTagForClientType(type));
    EXPECT_EQ(guide.find(row) != guide.npos, storebag.has_value()) << row;
  }
}

TEST(ClientTypes, OutsideTheTableHaveNoTag) {
  for (const std::int32_t type : {18, 2147483647, -1, -2147483647 - 1})
    EXPECT_EQ(clientTagForClientType(type), "") << type;
}

TEST(ClientTypes, HaveTheNamesOfTheirTagsAndStorebags) {
  for (std::int32_t type = 0; type < 18; ++type)
    EXPECT_EQ(clientTypeNamed(clientTagForClientType(type)), type);
  EXPECT_EQ(clientTypeNamed("lumen"), 5);
  EXPECT_EQ(clientTypeNamed("REEL"), 17);
  EXPECT_EQ(clientTypeNamed("zj-vwx"), 14);
  EXPECT_EQ(clientTypeNamed("parlor"), 7) << "the first of three";
  for (const char* none : {"", "5", "lumens", "Z"}) EXPECT_EQ(clientTypeNamed(none), std::nullopt);
}

TEST(EnvironmentNames, AreTheSectionsOfAStorebag) {
  EXPECT_EQ(environmentNameForType(CorvidEnvironmentType::none), std::nullopt);
  EXPECT_EQ(environmentNameForType(CorvidEnvironmentType::development), "development");
  EXPECT_EQ(environmentNameForType(CorvidEnvironmentType::internal), "halcyon_internal");
  EXPECT_EQ(environmentNameForType(CorvidEnvironmentType::seed), "seed");
  EXPECT_EQ(environmentNameForType(CorvidEnvironmentType::release), "release");
  EXPECT_EQ(environmentNameForType(static_cast<CorvidEnvironmentType>(5)), std::nullopt);
}

struct CurrentEnvironment : testing::Test {
  CorvidEnvironmentType with(Value preference) {
    platform.preferences->setValue(corvidSuite, "environmentType", std::move(preference));
    platform.log.clear();
    platform.restart();
    return currentEnvironment();
  }
  TestPlatform platform;
};

TEST_F(CurrentEnvironment, IsReleaseOnAnOrdinaryBuild) {
  EXPECT_EQ(currentEnvironment(), CorvidEnvironmentType::release);
  EXPECT_EQ(platform.log.lines().size(), 1u);
  EXPECT_TRUE(platform.log.has(LogLevel::info, "userDefaultsEnvironment: Environment type 4"));
}

TEST_F(CurrentEnvironment, IsInternalOnAnInternalBuild) {
  platform.device->set("ReleaseType", "Internal");
  EXPECT_EQ(currentEnvironment(), CorvidEnvironmentType::internal);
  EXPECT_TRUE(platform.log.has(LogLevel::info, "userDefaultsEnvironment: Environment type 2"));
}

TEST_F(CurrentEnvironment, IsThePreferredOneOnEveryBuild) {
  platform.device->set("ReleaseType", "Internal");
  for (std::uint32_t type = 0; type <= 4; ++type) {
    EXPECT_EQ(with(type), static_cast<CorvidEnvironmentType>(type));
    EXPECT_EQ(platform.log.texts(LogLevel::info),
              (std::vector<std::string>{
                  fmt::format("userDefaultsEnvironment: Environment type {}", type)}));
    EXPECT_TRUE(platform.log.texts(LogLevel::error).empty());
  }
}

TEST_F(CurrentEnvironment, AnInvalidPreferenceIsToldAndMeansInternal) {
  const std::vector<std::pair<std::int64_t, std::string>> table{
      {5, "5"},
      {7, "7"},
      {-1, "4294967295"},
      {2147483647, "2147483647"},
      {0x1'0000'0005, "5"},
      {std::numeric_limits<std::int64_t>::max(), "4294967295"}};
  for (const auto& [preference, told] : table) {
    EXPECT_EQ(with(preference), CorvidEnvironmentType::internal) << preference;
    EXPECT_EQ(platform.log.lines().size(), 2u);
    EXPECT_TRUE(platform.log.has(LogLevel::error,
                                 "userDefaultsEnvironment: Invalid environment type " + told));
    EXPECT_TRUE(platform.log.has(LogLevel::info, "userDefaultsEnvironment: Environment type 2"));
  }
}

TEST_F(CurrentEnvironment, ReadsThePreferenceAsAnInteger) {
  EXPECT_EQ(with("3"), CorvidEnvironmentType::seed);
  EXPECT_EQ(with("seed"), CorvidEnvironmentType::none);
  EXPECT_EQ(with(true), CorvidEnvironmentType::development);
  EXPECT_EQ(with(3.9), CorvidEnvironmentType::seed);
  EXPECT_EQ(with(-0.9), CorvidEnvironmentType::none);
  EXPECT_EQ(with(std::numeric_limits<double>::quiet_NaN()), CorvidEnvironmentType::none);
  EXPECT_EQ(with(1e300), CorvidEnvironmentType::internal) << "invalid";
  EXPECT_EQ(with(-1e300), CorvidEnvironmentType::none) << "the low bits of the least integer";
  EXPECT_EQ(with(std::int64_t{0x1'0000'0003}), CorvidEnvironmentType::seed) << "the low bits";
}

TEST_F(CurrentEnvironment, APreferenceOfAnotherTypeCountsAsAbsent) {
  EXPECT_EQ(with(Array{3}), CorvidEnvironmentType::release);
  EXPECT_EQ(with(Dictionary{}), CorvidEnvironmentType::release);
  EXPECT_EQ(with(Data{"3"}), CorvidEnvironmentType::release);
  EXPECT_EQ(with(Date{3}), CorvidEnvironmentType::release);
}

TEST_F(CurrentEnvironment, IsFoundOncePerProcess) {
  EXPECT_EQ(currentEnvironment(), CorvidEnvironmentType::release);
  platform.preferences->setValue(corvidSuite, "environmentType", 3);
  EXPECT_EQ(currentEnvironment(), CorvidEnvironmentType::release);
  EXPECT_EQ(platform.log.lines().size(), 1u);
  platform.restart();
  EXPECT_EQ(currentEnvironment(), CorvidEnvironmentType::seed);
}

struct EnvironmentFetch : testing::Test {
  EnvironmentFetch() {
    platform.files->files[Paths("/nonexistent/root").publicKeyFile] = {
        trustedSigner().publicKeyDER(), {}};
    serve(storebag);
  }
  void serve(const Dictionary& content) {
    const std::string body = enveloped(trustedSigner(), content);
    platform.http->answerWith([body](const HTTPRequest&) {
      return FakeHTTPClient::response(200, body, {{"Cache-Control", "max-age=500"}});
    });
  }
  void serveWithRefreshCycle(Value cycle) {
    Dictionary content = storebag;
    content.set("refresh_cycle", std::move(cycle));
    serve(content);
  }
  void setEnvironment(std::uint32_t type) {
    platform.preferences->setValue(corvidSuite, "environmentType", type);
  }
  std::optional<Dictionary> fetch(std::int32_t clientType = 5) {
    fetched = fetchStorebagForEnvironmentAndClientType(clientType, lastModified);
    return fetched.storebag;
  }
  bool errorIs(const std::string& text) {
    return platform.log.texts(LogLevel::error) == std::vector{text};
  }

  static Dictionary section(std::string name) { return {{"httpPost", Dictionary{{"is", name}}}}; }
  const Dictionary storebag{{"development", section("development")},
                            {"halcyon_internal", section("internal")},
                            {"seed", section("seed")},
                            {"release", section("release")},
                            {"version", "7.1"}};

  TestPlatform platform;
  std::optional<std::string> lastModified;  // of the storebag that the caller has
  FetchedStorebag fetched;
};

TEST_F(EnvironmentFetch, ReturnsTheSectionOfTheEnvironmentAndTheVersion) {
  const std::vector<std::string> names{"development", "internal", "seed", "release"};
  for (std::uint32_t type = 1; type <= 4; ++type) {
    setEnvironment(type);
    platform.restart();
    EXPECT_EQ(fetch(), section(names[type - 1]));
    EXPECT_EQ(fetched.version, "7.1");
    EXPECT_EQ(fetched.maxAge, 500);
  }
}

TEST_F(EnvironmentFetch, WithoutAPreferenceTheBuildDecides) {
  EXPECT_EQ(fetch(), section("release"));
  platform.device->set("ReleaseType", "Internal");
  platform.restart();
  EXPECT_EQ(fetch(), section("internal"));
}

TEST_F(EnvironmentFetch, ClientTypesOfOneNameFetchOneStorebag) {
  for (const std::int32_t type : {6, 14, 15}) {
    EXPECT_TRUE(fetch(type));
    EXPECT_EQ(platform.http->requests().back().url,
              "https://storebags.corvid.invalid/bags/birch/tessel?version=8.0");
  }
}

TEST_F(EnvironmentFetch, ClientTypeZeroIsRefusedWithoutAFetch) {
  EXPECT_FALSE(fetch(0));
  EXPECT_TRUE(platform.http->requests().empty());
  EXPECT_TRUE(
      errorIs("fetchStorebagForEnvironmentAndClientType: Could not find storebag name for client "
              "type 0"));
}

TEST_F(EnvironmentFetch, OtherClientTypesWithoutANameAreFetchedAllTheSame) {
  for (const std::int32_t type : {1, 2, 3, 4, 18, 1000, -1, -2147483647 - 1}) {
    EXPECT_EQ(fetch(type), section("release")) << type;
    EXPECT_EQ(platform.http->requests().back().url,
              "https://storebags.corvid.invalid/bags/birch/(null)?version=8.0");
  }
}

TEST_F(EnvironmentFetch, AFailedFetchIsTold) {
  platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::error(7, "no route to host"); });
  EXPECT_FALSE(fetch(5));
  EXPECT_TRUE(errorIs(
      "fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type 5"));
  EXPECT_FALSE(fetched.version);
  EXPECT_EQ(fetched.maxAge, 0);
}

TEST_F(EnvironmentFetch, AnUnchangedStorebagIsSilent) {
  lastModified = "before";
  platform.http->answerWith([](const HTTPRequest&) {
    return FakeHTTPClient::response(304, "", {{"Last-Modified", "before"}});
  });
  EXPECT_FALSE(fetch());
  EXPECT_TRUE(fetched.notModified);
  EXPECT_TRUE(platform.log.texts(LogLevel::error).empty());
  EXPECT_FALSE(fetched.version);
}

TEST_F(EnvironmentFetch, LastModifiedTravelsThrough) {
  lastModified = "before";
  const std::string body = enveloped(trustedSigner(), storebag);
  platform.http->answerWith([&](const HTTPRequest& request) {
    EXPECT_EQ(request.headers, (HTTPHeaders{{"If-Modified-Since", "before"}}));
    return FakeHTTPClient::response(200, body, {{"Last-Modified", "after"}});
  });
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.lastModified, "after");
}

TEST_F(EnvironmentFetch, ASeedDeviceFallsBackToRelease) {
  setEnvironment(3);
  Dictionary content = storebag;
  content.erase("seed");
  serve(content);
  EXPECT_EQ(fetch(), section("release"));
  EXPECT_EQ(platform.log.texts(LogLevel::warning),
            (std::vector<std::string>{"fetchStorebagForEnvironmentAndClientType: Seed section is "
                                      "missing in the storebag."}));
}

TEST_F(EnvironmentFetch, ASeedDeviceUsesTheFallbackStorebagsRelease) {
  setEnvironment(3);
  platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::error(7, "no route to host"); });
  EXPECT_EQ(fetch(7), (Dictionary{{"metrix", Dictionary{{"active", true}}}}));
  EXPECT_EQ(platform.log.texts(LogLevel::warning).size(), 1u);
  EXPECT_EQ(fetched.version, "1.0.0-Parlor-Fallback");
  EXPECT_EQ(fetched.maxAge, 3600);
}

TEST_F(EnvironmentFetch, AStorebagWithoutTheSectionIsTold) {
  Dictionary content = storebag;
  content.erase("release");
  serve(content);
  EXPECT_FALSE(fetch(5));
  EXPECT_TRUE(errorIs(
      "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 5 with "
      "release environment"));
  EXPECT_FALSE(fetched.version);
}

TEST_F(EnvironmentFetch, OnlySeedFallsBackToRelease) {
  setEnvironment(1);
  Dictionary content = storebag;
  content.erase("development");
  serve(content);
  EXPECT_FALSE(fetch(9));
  EXPECT_TRUE(errorIs(
      "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 9 with "
      "development environment"));
  EXPECT_TRUE(platform.log.texts(LogLevel::warning).empty());
}

TEST_F(EnvironmentFetch, WithoutSeedAndReleaseTheLastSectionTriedIsNamed) {
  setEnvironment(3);
  serve({{"version", "7.1"}});
  EXPECT_FALSE(fetch(5));
  EXPECT_TRUE(errorIs(
      "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 5 with "
      "release environment"));
}

TEST_F(EnvironmentFetch, EnvironmentNoneHasNoSection) {
  setEnvironment(0);
  EXPECT_FALSE(fetch(5));
  EXPECT_TRUE(errorIs(
      "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 5 with "
      "(null) environment"));
}

TEST_F(EnvironmentFetch, ASectionOfAnotherTypeCountsAsMissing) {
  for (const Value& wrong : {Value("release"), Value(Array{section("release")}), Value(1),
                             Value(0.5), Value(true), Value(Date{1}), Value(Data{"release"})}) {
    platform.log.clear();
    Dictionary content = storebag;
    content.set("release", wrong);
    serve(content);
    EXPECT_FALSE(fetch());
    EXPECT_TRUE(platform.log.anyContains("with release environment"));
  }
}

TEST_F(EnvironmentFetch, AStorebagWithoutVersionIsOneErrorLineAndASectionWithoutVersion) {
  Dictionary content = storebag;
  content.erase("version");
  content.set("refresh_cycle", 30);
  serve(content);
  EXPECT_EQ(fetch(5), section("release"));
  EXPECT_FALSE(fetched.version);
  EXPECT_EQ(fetched.maxAge, 500) << "the refresh cycle comes after the version";
  EXPECT_TRUE(errorIs(
      "fetchStorebagForEnvironmentAndClientType: The storebag for client type 5 has no version"));
  for (const Value& wrong : {Value(7.1), Value(7), Value(true), Value(Date{7}), Value(Array{"7.1"}),
                             Value(Data{"7.1"}), Value(Dictionary{{"7.1", 1}})}) {
    content.set("version", wrong);
    serve(content);
    EXPECT_TRUE(fetch());
    EXPECT_FALSE(fetched.version);
  }
}

TEST_F(EnvironmentFetch, AStorebagWithoutSectionNorVersionIsOnlyTold) {
  serve({});
  EXPECT_FALSE(fetch());
  EXPECT_FALSE(fetched.version);
  EXPECT_TRUE(
      errorIs("fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 5 "
              "with release environment"));
}

TEST_F(EnvironmentFetch, TheRefreshCycleOverridesMaxAge) {
  serveWithRefreshCycle(30);
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, 30);
  EXPECT_TRUE(platform.log.has(
      LogLevel::info, "fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge=30"));
}

TEST_F(EnvironmentFetch, TheRefreshCycleIsCappedAtADay) {
  for (const std::int64_t cycle : {86400L, 86401L, 100000L, 5'000'000'000L}) {
    serveWithRefreshCycle(cycle);
    EXPECT_TRUE(fetch());
    EXPECT_EQ(fetched.maxAge, 86400) << cycle;
  }
  EXPECT_TRUE(platform.log.has(
      LogLevel::info, "fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge=86400"));
  serveWithRefreshCycle(86399);
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, 86399);
}

TEST_F(EnvironmentFetch, TheRefreshCycleHasNoLowerBound) {
  serveWithRefreshCycle(0);
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, 0);
  serveWithRefreshCycle(-5);
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, -5);
  serveWithRefreshCycle(-5'000'000'000L);
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, std::numeric_limits<std::int32_t>::min()) << "but that of its type";
}

TEST_F(EnvironmentFetch, TheRefreshCycleIsReadAsAnInteger) {
  serveWithRefreshCycle("90 seconds");
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, 90);
  for (const auto& [cycle, age] : std::vector<std::pair<Value, std::int32_t>>{
           {12.9, 12},
           {-12.9, -12},
           {true, 1},
           {std::numeric_limits<double>::quiet_NaN(), 0},
           {std::numeric_limits<double>::infinity(), 86400},
           {-1e300, std::numeric_limits<std::int32_t>::min()}}) {
    serveWithRefreshCycle(cycle);
    EXPECT_TRUE(fetch());
    EXPECT_EQ(fetched.maxAge, age);
  }
}

TEST_F(EnvironmentFetch, ARefreshCycleOfAnotherTypeCountsAsAbsent) {
  for (const Value& wrong :
       {Value(Array{30}), Value(Dictionary{}), Value(Data{"30"}), Value(Date{30})}) {
    serveWithRefreshCycle(wrong);
    EXPECT_TRUE(fetch());
    EXPECT_EQ(fetched.maxAge, 500);
  }
  EXPECT_FALSE(platform.log.anyContains("override MaxAge"));
}

}  // namespace
}  // namespace corvid
