#include <fmt/format.h>
#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <chrono>
#include <memory>
#include <thread>

#include "config/StorebagFetch.h"
#include "platform/data/PropertyList.h"
#include "tests/config/Signers.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr std::string_view base = "https://storebags.corvid.invalid/bags/birch";
const Dictionary served{{"release", Dictionary{}}, {"version", "7.1"}};

struct StorebagFetch : testing::Test {
  StorebagFetch() {
    platform.files->files[paths.publicKeyFile] = {trustedSigner().publicKeyDER(), {}};
    answer(200, enveloped(trustedSigner(), served));
  }
  void answer(int status, std::string body, HTTPHeaders headers = {}) {
    platform.http->answerWith(
        [=](const HTTPRequest&) { return FakeHTTPClient::response(status, body, headers); });
  }
  void answerWithError() {
    platform.http->answerWith(
        [](const HTTPRequest&) { return FakeHTTPClient::error(7, "no route to host"); });
  }
  std::optional<Dictionary> fetch(const std::optional<std::string>& name = "lumen") {
    fetched = fetchStorebagWithName(name, lastModified);
    return fetched.storebag;
  }
  std::string requestedURL() { return platform.http->requests().back().url; }

  TestPlatform platform;
  const Paths paths{"/nonexistent/root"};
  std::optional<std::string> lastModified;  // of the storebag that the caller has
  FetchedStorebag fetched;
};

TEST_F(StorebagFetch, TheProductionServerIsAskedByDefault) { EXPECT_EQ(storebagServerURL(), base); }

TEST_F(StorebagFetch, AnInternalBuildAsksTheInternalServer) {
  platform.device->set("ReleaseType", "Internal");
  EXPECT_EQ(storebagServerURL(), "https://internal-storebags.corvid.invalid/storebags/birch");
}

TEST_F(StorebagFetch, TheDeploymentSetsBothHosts) {
  Deployment deployment;
  deployment.productionStorebagHost = "bags.example:8443";
  deployment.internalStorebagHost = "internal.example:9443";
  platform.restart(paths, deployment);
  EXPECT_EQ(storebagServerURL(), "https://bags.example:8443/bags/birch");
  platform.device->set("ReleaseType", "Internal");
  platform.restart();
  EXPECT_EQ(storebagServerURL(), "https://internal.example:9443/storebags/birch");
}

TEST_F(StorebagFetch, ThePreferredURLWinsOnEveryBuild) {
  platform.device->set("ReleaseType", "Internal");
  platform.preferences->setValue(corvidSuite, "corvid_storebag_url", "http://127.0.0.1:1/x");
  EXPECT_EQ(storebagServerURL(), "http://127.0.0.1:1/x");
  EXPECT_TRUE(fetch());
  EXPECT_EQ(requestedURL(), "http://127.0.0.1:1/x/lumen?version=8.0");
}

TEST_F(StorebagFetch, AnEmptyPreferredURLIsPresent) {
  platform.preferences->setValue(corvidSuite, "corvid_storebag_url", "");
  EXPECT_EQ(storebagServerURL(), "");
}

TEST_F(StorebagFetch, APreferredURLOfAnotherTypeCountsAsAbsent) {
  for (const Value& wrong : {Value(7), Value(0.5), Value(true), Value(Date{7}), Value(Data{"x"}),
                             Value(Array{"x"}), Value(Dictionary{{"x", "x"}})}) {
    platform.preferences->setValue(corvidSuite, "corvid_storebag_url", wrong);
    platform.restart();
    EXPECT_EQ(storebagServerURL(), base);
  }
}

TEST_F(StorebagFetch, TheServerIsChosenOncePerProcess) {
  EXPECT_EQ(storebagServerURL(), base);
  platform.preferences->setValue(corvidSuite, "corvid_storebag_url", "http://127.0.0.1:1");
  EXPECT_EQ(storebagServerURL(), base);
  platform.restart();
  EXPECT_EQ(storebagServerURL(), "http://127.0.0.1:1");
}

TEST_F(StorebagFetch, AsksByNameAndVersionAndReturnsTheVerifiedStorebag) {
  platform.files->files[paths.infoFile] = {
      writeXMLPropertyList(Dictionary{{"BundleVersion", "12.4.1"}}), {}};
  EXPECT_EQ(fetch(), served);
  const auto requests = platform.http->requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].url, std::string(base) + "/lumen?version=12.4.1");
  EXPECT_TRUE(requests[0].headers.empty());
  EXPECT_EQ(requests[0].body, "");
  EXPECT_EQ(requests[0].timeout, std::chrono::milliseconds(15'000));
  EXPECT_EQ(requests[0].patience, std::chrono::milliseconds(15'000));
  EXPECT_TRUE(requests[0].timeoutCoversWait);
  EXPECT_TRUE(requests[0].wantsBody);
  EXPECT_EQ(platform.log.texts(LogLevel::debug),
            (std::vector<std::string>{"fetchStorebagWithName: Storebag Server URL: " +
                                      std::string(base) + "/lumen?version=12.4.1"}));
  EXPECT_EQ(platform.log.lines().size(), 1u);
}

TEST_F(StorebagFetch, EveryFetchAsksTheServerHoweverFreshTheLastAnswer) {
  answer(200, enveloped(trustedSigner(), served), {{"Cache-Control", "max-age=86400"}});
  EXPECT_TRUE(fetch());
  EXPECT_TRUE(fetch());
  EXPECT_EQ(platform.http->requests().size(), 2u);
}

TEST_F(StorebagFetch, AnAbsentNameStandsAsNullInTheURL) {
  EXPECT_EQ(fetch(std::nullopt), served);
  EXPECT_EQ(requestedURL(), std::string(base) + "/(null)?version=8.0");
}

TEST_F(StorebagFetch, AKnownLastModifiedMakesTheRequestConditional) {
  lastModified = "Tue, 14 Nov 2023 22:13:20 GMT";
  EXPECT_TRUE(fetch());
  EXPECT_EQ(platform.http->requests().back().headers,
            (HTTPHeaders{{"If-Modified-Since", "Tue, 14 Nov 2023 22:13:20 GMT"}}));
  EXPECT_EQ(platform.log.texts(LogLevel::debug).at(1),
            "fetchStorebagWithName: Adding 'Last-Modified: Tue, 14 Nov 2023 22:13:20 GMT' to the "
            "header");
}

TEST_F(StorebagFetch, AnEmptyLastModifiedIsAValueToo) {
  lastModified = "";
  EXPECT_TRUE(fetch());
  EXPECT_EQ(platform.http->requests().back().headers, (HTTPHeaders{{"If-Modified-Since", ""}}));
}

TEST_F(StorebagFetch, ATransportErrorYieldsNothing) {
  answerWithError();
  lastModified = "before";
  EXPECT_FALSE(fetch());
  EXPECT_EQ(fetched.maxAge, 0);
  EXPECT_FALSE(fetched.notModified);
  EXPECT_EQ(fetched.lastModified, std::nullopt);
  EXPECT_EQ(platform.log.texts(LogLevel::info),
            (std::vector<std::string>{
                "fetchStorebagWithName: Error resolving with lookup server " + std::string(base) +
                "/lumen?version=8.0, sendSynchronousRequest error no route to host"}));
  EXPECT_TRUE(platform.log.texts(LogLevel::error).empty());
}

TEST_F(StorebagFetch, ATransportErrorGivesParlorItsFallback) {
  answerWithError();
  const Value metrix = Dictionary{{"metrix", Dictionary{{"active", true}}}};
  const Dictionary fallback{{"halcyon_internal", metrix},
                            {"development", metrix},
                            {"release", metrix},
                            {"version", "1.0.0-Parlor-Fallback"},
                            {"refresh_cycle", 3600}};
  EXPECT_EQ(fetch("parlor"), fallback);
  EXPECT_EQ(fetched.maxAge, 0);
  EXPECT_FALSE(fetched.notModified);
  EXPECT_EQ(platform.log.texts(LogLevel::info).back(),
            "fetchStorebagWithName: Loading default storebag 'parlor'");
}

TEST_F(StorebagFetch, OnlyATransportErrorBringsTheFallback) {
  for (const int status : {200, 304, 404, 500}) {
    answer(status, "");
    EXPECT_FALSE(fetch("parlor")) << status;
  }
  EXPECT_FALSE(platform.log.anyContains("Loading default storebag"));
}

TEST_F(StorebagFetch, AnAbsentNameHasNoFallback) {
  answerWithError();
  EXPECT_FALSE(fetch(std::nullopt));
}

TEST_F(StorebagFetch, MaxAgeComesFromCacheControl) {
  const std::string body = enveloped(trustedSigner(), served);
  answer(200, body, {{"Cache-Control", "max-age=600"}});
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, 600);
  answer(200, body, {{"cache-control", "public, max-age=60"}});
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, 60);
}

TEST_F(StorebagFetch, WithoutCacheControlMaxAgeIsADay) {
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.maxAge, 86400);
}

TEST_F(StorebagFetch, MaxAgeIsWrittenForEveryExchangeThatCompleted) {
  answer(404, "not found", {{"Cache-Control", "max-age=30"}});
  EXPECT_FALSE(fetch());
  EXPECT_EQ(fetched.maxAge, 30);

  lastModified = "before";
  answer(304, "", {{"Cache-Control", "max-age=40"}, {"Last-Modified", "before"}});
  EXPECT_FALSE(fetch());
  EXPECT_EQ(fetched.maxAge, 40);
}

TEST_F(StorebagFetch, AnEmptyBodyWithLastModifiedMeansUnchanged) {
  for (const int status : {304, 200}) {
    platform.log.clear();
    lastModified = "before";
    answer(status, "", {{"Last-Modified", "after"}});
    EXPECT_FALSE(fetch());
    EXPECT_TRUE(fetched.notModified);
    EXPECT_EQ(fetched.lastModified, std::nullopt);
    EXPECT_EQ(platform.log.texts(LogLevel::debug).back(),
              "fetchStorebagWithName: storebag content has not changed. using its cached version");
    EXPECT_TRUE(platform.log.texts(LogLevel::error).empty());
  }
}

TEST_F(StorebagFetch, OnAFirstFetchAnEmptyBodyStoresTheValueAndFails) {
  answer(304, "", {{"Last-Modified", "after"}});
  EXPECT_FALSE(fetch());
  EXPECT_FALSE(fetched.notModified);
  EXPECT_EQ(fetched.lastModified, "after");
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "fetchStorebagWithName: New 'Last-Modified: after' received"));
  const auto errors = platform.log.texts(LogLevel::error);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_TRUE(errors[0].starts_with("fetchStorebagWithName: propertyListWithData error "));
  EXPECT_EQ(errors[1], signatureMissing);
}

TEST_F(StorebagFetch, WithoutLastModifiedAnEmptyBodyIsNeverUnchanged) {
  lastModified = "before";
  answer(304, "");
  EXPECT_FALSE(fetch());
  EXPECT_FALSE(fetched.notModified);
  EXPECT_EQ(fetched.lastModified, std::nullopt);
  EXPECT_TRUE(platform.log.has(LogLevel::error, signatureMissing));
}

TEST_F(StorebagFetch, ANewLastModifiedReplacesTheOldOne) {
  lastModified = "before";
  answer(200, enveloped(trustedSigner(), served), {{"Last-Modified", "after"}});
  EXPECT_EQ(fetch(), served);
  EXPECT_EQ(fetched.lastModified, "after");
  EXPECT_FALSE(fetched.notModified);
  EXPECT_EQ(platform.log.texts(LogLevel::debug).back(),
            "fetchStorebagWithName: New 'Last-Modified: after' received");
}

TEST_F(StorebagFetch, ALaterFailureKeepsTheNewLastModified) {
  lastModified = "before";
  answer(200, "garbage", {{"Last-Modified", "after"}});
  EXPECT_FALSE(fetch());
  EXPECT_EQ(fetched.lastModified, "after");
}

TEST_F(StorebagFetch, TheStatusCodeIsNotExamined) {
  for (const int status : {0, 204, 206, 301, 304, 400, 401, 404, 500, 503, 999}) {
    answer(status, enveloped(trustedSigner(), served));
    EXPECT_EQ(fetch(), served) << status;
  }
}

TEST_F(StorebagFetch, AForgedStorebagIsRefused) {
  answer(200, enveloped(strangeSigner(), served));
  EXPECT_FALSE(fetch());
  const auto errors = platform.log.texts(LogLevel::error);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(errors[0].starts_with("fetchStorebagWithName: Signature can not be verified, 0x"));
}

TEST_F(StorebagFetch, TheKeyFileIsReadAtEachFetch) {
  EXPECT_TRUE(fetch());
  platform.files->files[paths.publicKeyFile].content = strangeSigner().publicKeyDER();
  EXPECT_FALSE(fetch());
  platform.files->files[paths.publicKeyFile].content = barePublicKeyDER(trustedSigner());
  EXPECT_TRUE(fetch());
}

TEST_F(StorebagFetch, AMissingOrUnusableKeyFileIsNotLogged) {
  platform.files->files[paths.publicKeyFile].content = "garbage";
  EXPECT_FALSE(fetch());
  platform.files->files[paths.publicKeyFile].content = std::string(1 << 20, '0');
  EXPECT_FALSE(fetch());
  platform.files->files.erase(paths.publicKeyFile);
  EXPECT_FALSE(fetch());
  EXPECT_EQ(platform.log.lines().size(), 3u) << "one line with the URL for each fetch";
  EXPECT_EQ(platform.log.texts(LogLevel::debug).size(), 3u);
}

TEST_F(StorebagFetch, AFurtherKeyIsReadAtEachFetchAndAMissingMainOneIsNoFailureBesideIt) {
  platform.files->files.erase(paths.publicKeyFile);
  EXPECT_FALSE(fetch());
  platform.files->directories.insert(paths.furtherKeysFolder);
  platform.files->files[paths.furtherKeysFolder + "/new.der"] = {trustedSigner().publicKeyDER(),
                                                                 {}};
  EXPECT_TRUE(fetch());
  EXPECT_EQ(fetched.key, keysOf(trustedSigner().publicKeyDER()).front().fingerprint());
  EXPECT_TRUE(platform.log.texts(LogLevel::error).empty());
}

TEST_F(StorebagFetch, AFurtherFileThatIsNoUsableKeyIsPassedOverWithOneErrorLine) {
  platform.files->directories.insert(paths.furtherKeysFolder);
  const std::string file = paths.furtherKeysFolder + "/a.der";
  platform.files->files[file] = {"garbage", {}};
  EXPECT_TRUE(fetch());
  EXPECT_EQ(
      platform.log.texts(LogLevel::error),
      std::vector{"fetchStorebagWithName: " + file + " is passed over: no public key in DER form"});
}

TEST_F(StorebagFetch, AKeyThatIsTooShortOrOfAnotherKindIsNamed) {
  const auto errorWith = [&](EVP_PKEY* made) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(made, &EVP_PKEY_free);
    unsigned char* bytes = nullptr;
    const int size = i2d_PUBKEY(key.get(), &bytes);
    platform.files->files[paths.publicKeyFile].content.assign(reinterpret_cast<const char*>(bytes),
                                                              static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    platform.log.clear();
    EXPECT_FALSE(fetch());
    const auto errors = platform.log.texts(LogLevel::error);
    return errors.size() == 1 ? errors.front() : fmt::format("{} errors", errors.size());
  };
  const std::string start = "fetchStorebagWithName: " + paths.publicKeyFile + " is ";
  const std::string end = "; no storebag is accepted with it";
  EXPECT_EQ(errorWith(EVP_RSA_gen(1024)), start + "an RSA key of 1024 bits, fewer than 2048" + end);
  EXPECT_EQ(errorWith(EVP_EC_gen("P-256")),
            start + "a key of the kind EC, where RSA is needed" + end);
}

TEST_F(StorebagFetch, BlocksItsCallerUntilTheExchangeEnds) {
  platform.http->hold();
  std::thread caller([&] { fetch(); });
  ASSERT_TRUE(waitUntil([&] { return platform.http->exchangesUnderWay() == 1; }));
  platform.http->completeNext(
      FakeHTTPClient::response(200, enveloped(trustedSigner(), served), {}));
  caller.join();
  EXPECT_EQ(fetched.storebag, served);
}

}  // namespace
}  // namespace corvid
