#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>

#include "config/Environment.h"
#include "config/KeptStorebags.h"
#include "config/StorebagSerials.h"
#include "platform/data/LocalFileSystem.h"
#include "tests/config/Signers.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

constexpr std::int32_t lumen = 5;

struct KeptStorebags : testing::Test {
  KeptStorebags() {
    platform.files->files[paths.publicKeyFile] = {trustedSigner().publicKeyDER(), {}};
    deploy([](Deployment& settings) { settings.keepStorebags = true; });
    serve(enveloped(trustedSigner(), storebag(7)));
  }
  static Dictionary storebag(int serial) {
    return {{"release", Dictionary{{"mark", serial}}},
            {"version", "1." + std::to_string(serial)},
            {"serial", serial},
            {"refresh_cycle", 600}};
  }
  // A new process with these settings.
  void deploy(const std::function<void(Deployment&)>& change) {
    change(deployment);
    platform.restart(paths, deployment);
  }
  void serve(const std::string& envelope) {
    platform.http->answerWith([=](const HTTPRequest&) {
      return FakeHTTPClient::response(200, envelope, {{"Last-Modified", "today"}});
    });
  }
  FetchedStorebag fetchAndKeep(double time = 1000) {
    FetchedStorebag fetched = fetchStorebagForEnvironmentAndClientType(lumen, std::nullopt);
    keepStorebag("lumen", fetched, time);
    platform.log.clear();
    return fetched;
  }
  std::vector<std::string> errors() const { return platform.log.texts(LogLevel::error); }

  ScratchFolder root;
  const Paths paths{root.path()};
  const std::string file = paths.storebagsFolder + "/lumen.plist";
  Deployment deployment;
  TestPlatform platform;
};

TEST_F(KeptStorebags, WhatWasKeptIsWhatWasFetched) {
  const FetchedStorebag fetched = fetchAndKeep(1234.5);
  const auto kept = keptStorebag(lumen);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->fetched.storebag, fetched.storebag);
  EXPECT_EQ(kept->fetched.version, "1.7");
  EXPECT_EQ(kept->fetched.maxAge, 600);
  EXPECT_EQ(kept->fetched.lastModified, "today");
  EXPECT_EQ(kept->fetched.url, fetched.url);
  EXPECT_EQ(kept->fetched.key, fetched.key);
  EXPECT_EQ(kept->fetchTime, 1234.5);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(KeptStorebags, ItsFileIsForItsOwnerOnly) {
  fetchAndKeep();
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST_F(KeptStorebags, WithoutTheSettingNothingIsWrittenAndNothingRead) {
  deploy([](Deployment& settings) { settings.keepStorebags = false; });
  fetchAndKeep();
  EXPECT_FALSE(fs::exists(paths.storebagsFolder));
  root.write("var/lib/corvidd/Storebags/lumen.plist", "damaged");
  EXPECT_FALSE(keptStorebag(lumen));
  EXPECT_EQ(contentOf(file), "damaged");
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(KeptStorebags, ADamagedOneIsSetAsideWithOneErrorLine) {
  for (const std::string& content :
       {std::string("damaged"), writeXMLPropertyList(Array{}),
        writeXMLPropertyList(Dictionary{{"envelope", "text"}, {"url", 7}}),
        writeBinaryPropertyList(
            Dictionary{{"envelope", Data{enveloped(trustedSigner(), storebag(7))}},
                       {"url", storebagURL("lumen")},
                       {"fetchTime", Date{std::numeric_limits<double>::quiet_NaN()}},
                       {"maxAge", 600}})}) {
    root.write("var/lib/corvidd/Storebags/lumen.plist", content);
    platform.log.clear();
    EXPECT_FALSE(keptStorebag(lumen));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(contentOf(file + ".damaged"), content);
    EXPECT_THAT(errors(), ElementsAre(StartsWith("keptStorebag: " + file)));
    EXPECT_EQ(platform.log.lines().size(), 1u);
  }
}

TEST_F(KeptStorebags, WhatCannotBeReadIsSetAsideWithOneErrorLineThatNamesTheFileOnce) {
  fs::create_directories(file);
  EXPECT_FALSE(keptStorebag(lumen));
  EXPECT_THAT(errors(),
              ElementsAre("keptStorebag: " + file + ": Is a directory; it is set aside as " + file +
                          ".damaged, and the server is asked"));
}

TEST_F(KeptStorebags, OneByAnotherKeyIsSetAsideWithOneErrorLine) {
  fetchAndKeep();
  platform.files->files[paths.publicKeyFile] = {strangeSigner().publicKeyDER(), {}};
  EXPECT_FALSE(keptStorebag(lumen));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("no key of this device verifies its signature")));
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(keptStorebag(lumen));
  EXPECT_EQ(errors().size(), 1u) << "it is said once";
}

TEST_F(KeptStorebags, OneOfAnotherServerIsPassedOverInSilence) {
  fetchAndKeep();
  deploy([](Deployment& settings) { settings.productionStorebagHost = "other.example"; });
  EXPECT_FALSE(keptStorebag(lumen));
  EXPECT_TRUE(fs::exists(file));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(KeptStorebags, OneWithoutTheSHA256SignatureThatIsRequiredNowIsSetAside) {
  fetchAndKeep();
  deploy([](Deployment& settings) { settings.requireSHA256Signature = true; });
  EXPECT_FALSE(keptStorebag(lumen));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("no SHA-256 signature")));
}

TEST_F(KeptStorebags, OneThatIsOlderThanWasSeenIsRemovedWithOneErrorLine) {
  fetchAndKeep();
  deploy([](Deployment& settings) { settings.refuseOlderStorebags = true; });
  noteSerial("lumen", 8);
  EXPECT_FALSE(keptStorebag(lumen));
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(fs::exists(file + ".damaged"));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("its serial 7 is below 8")));
}

TEST_F(KeptStorebags, NothingChangedRenewsTheTimeAndTheAge) {
  fetchAndKeep(1000);
  keepStorebag("lumen", {.maxAge = 60, .notModified = true}, 2000);
  const auto kept = keptStorebag(lumen);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->fetchTime, 2000);
  EXPECT_EQ(kept->fetched.maxAge, 60);
  EXPECT_EQ(kept->fetched.version, "1.7");
  EXPECT_EQ(kept->fetched.lastModified, "today");
}

TEST_F(KeptStorebags, NothingChangedOfNothingKeepsNothing) {
  keepStorebag("lumen", {.maxAge = 60, .notModified = true}, 2000);
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(KeptStorebags, WhatCannotBeWrittenIsOneErrorLine) {
  root.write("var/lib/corvidd/Storebags", "no folder");
  const FetchedStorebag fetched = fetchStorebagForEnvironmentAndClientType(lumen, std::nullopt);
  platform.log.clear();
  keepStorebag("lumen", fetched, 1000);
  EXPECT_THAT(errors(), ElementsAre(StartsWith("keepStorebag: lumen is not kept")));
}

TEST_F(KeptStorebags, ADefaultOfTheDaemonIsNotKept) {
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::error(7, "away"); });
  constexpr std::int32_t parlor = 7;
  const FetchedStorebag fetched = fetchStorebagForEnvironmentAndClientType(parlor, std::nullopt);
  ASSERT_TRUE(fetched.storebag);
  keepStorebag("parlor", fetched, 1000);
  EXPECT_FALSE(fs::exists(paths.storebagsFolder + "/parlor.plist"));
}

struct StorebagSerials : KeptStorebags {
  StorebagSerials() {
    deploy([](Deployment& settings) { settings.refuseOlderStorebags = true; });
  }
  FetchedStorebag fetch(const Dictionary& published) {
    serve(enveloped(trustedSigner(), published));
    platform.log.clear();
    return fetchStorebagForEnvironmentAndClientType(lumen, std::nullopt);
  }
};

TEST_F(StorebagSerials, AnOlderOneIsRefusedWithItsReason) {
  EXPECT_TRUE(fetch(storebag(7)).storebag);
  const FetchedStorebag fetched = fetch(storebag(6));
  EXPECT_FALSE(fetched.storebag);
  ASSERT_TRUE(fetched.fault);
  EXPECT_EQ(fetched.fault->reason, Reason::storebagOlder);
  EXPECT_EQ(fetched.fault->detail, "serial 6, below 7");
  EXPECT_FALSE(fetched.lastModified) << "or the next answer would be that nothing has changed";
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("has serial 6, and 7 was seen")));
}

TEST_F(StorebagSerials, AnEqualOnePassesAndNoneCountsAsZero) {
  Dictionary bare = storebag(0);
  bare.erase("serial");
  EXPECT_TRUE(fetch(bare).storebag);
  EXPECT_TRUE(fetch(storebag(7)).storebag);
  EXPECT_TRUE(fetch(storebag(7)).storebag);
  EXPECT_FALSE(fetch(bare).storebag);
  bare.set("serial", Array{9});
  EXPECT_FALSE(fetch(bare).storebag) << "of another type it is none";
}

TEST_F(StorebagSerials, TheHighestOutlastsTheProcessWithoutKeptStorebags) {
  deploy([](Deployment& settings) { settings.keepStorebags = false; });
  EXPECT_TRUE(fetch(storebag(7)).storebag);
  platform.restart();
  EXPECT_FALSE(fetch(storebag(6)).storebag);
  EXPECT_TRUE(fetch(storebag(8)).storebag);
  EXPECT_EQ(highestSerialSeen("lumen"), 8);
}

TEST_F(StorebagSerials, EachNameHasItsOwn) {
  noteSerial("tessel", 100);
  EXPECT_TRUE(fetch(storebag(7)).storebag);
  EXPECT_EQ(highestSerialSeen("tessel"), 100);
}

TEST_F(StorebagSerials, WithoutTheSettingNoneIsReadOrWritten) {
  noteSerial("lumen", 100);
  deploy([](Deployment& settings) { settings.refuseOlderStorebags = false; });
  EXPECT_TRUE(fetch(storebag(7)).storebag);
  EXPECT_EQ(highestSerialSeen("lumen"), 100);
}

TEST_F(StorebagSerials, ADamagedFileIsSaidAndWrittenAnew) {
  root.write("var/lib/corvidd/Storebags/serials.plist", "damaged");
  EXPECT_TRUE(fetch(storebag(7)).storebag);
  EXPECT_THAT(errors().at(0), StartsWith("storebagSerials: "));
  EXPECT_EQ(highestSerialSeen("lumen"), 7);
}

}  // namespace
}  // namespace corvid
