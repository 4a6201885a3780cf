// What a lab lays out below its root, and what of it stays.
#include <filesystem>

#include "platform/Paths.h"
#include "platform/data/Deployment.h"
#include "platform/data/PropertyList.h"
#include "tests/support/SigningKeys.h"
#include "tests/tools/lab/LabFixture.h"

namespace corvid::lab {
namespace {

Dictionary listAt(const std::string& path) {
  const Result<Value> list = parsePropertyList(contentOf(path));
  EXPECT_TRUE(list && list.value().dictionary()) << path;
  return list && list.value().dictionary() ? *list.value().dictionary() : Dictionary();
}

// What the constructor of a lab says.
std::string failureOf(const std::string& root, Lab::Options options = {}) {
  try {
    const Lab lab(root, options);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "none";
}

class LabTest : public LabFixture {
 protected:
  const Paths paths{root.path()};
};

TEST_F(LabTest, WritesWhatTheDaemonNeeds) {
  const Dictionary deployment = listAt(paths.deploymentFile);
  const std::string host = "localhost:" + std::to_string(lab.storebags().port());
  EXPECT_EQ(*stringAt(deployment, "ProductionStorebagHost"), host);
  EXPECT_EQ(*stringAt(deployment, "InternalStorebagHost"), host);
  EXPECT_EQ(*stringAt(deployment, "CAFile"), root.path("lab/tls/ca.pem"));
  EXPECT_EQ(*stringAt(listAt(paths.infoFile), "BundleVersion"), "8.1");
  EXPECT_NE(stringAt(listAt(paths.deviceFile), "ProductType"), nullptr);
  const Dictionary entitlement = listAt(paths.entitlementsFolder + "/lab.plist");
  EXPECT_EQ(*stringAt(*dictionaryAt(entitlement, "match"), "user"), std::to_string(getuid()));
  EXPECT_TRUE(booleanAt(*dictionaryAt(entitlement, "entitlements"), "com.halcyon.private.corvidd"));
  EXPECT_EQ(contentOf(paths.sandboxFolder + "/com.halcyon.corvidd.plist"),
            contentOf(CORVID_SANDBOX_PROFILE));
  EXPECT_TRUE(std::filesystem::is_directory(root.path("run/corvidd")));
  EXPECT_TRUE(std::filesystem::is_directory(paths.preferencesFolder));
}

TEST_F(LabTest, TellsItsAddresses) {
  const Dictionary addresses = lab.addresses();
  EXPECT_EQ(*stringAt(addresses, "root"), root.path());
  EXPECT_EQ(*stringAt(addresses, "received"), root.path("lab/received.jsonl"));
  EXPECT_EQ(address("storebags"), "https://localhost:" + std::to_string(lab.storebags().port()));
  EXPECT_EQ(address("events"),
            "https://localhost:" + std::to_string(lab.reports().port()) + "/events");
  EXPECT_EQ(address("logData"),
            "https://localhost:" + std::to_string(lab.reports().port()) + "/logData");
  EXPECT_EQ(address("dashboard"), "127.0.0.1:" + std::to_string(lab.dashboard().port()));
  EXPECT_EQ(address("upload"),
            "https://localhost:" + std::to_string(lab.reports().port()) + "/upload");
  EXPECT_EQ(addresses.size(), 9u);
}

TEST_F(LabTest, PlansFaultsOfItsDashboard) {
  const auto plan = [&](const std::string& json) {
    return Peer("").post(address("control"), json);
  };
  EXPECT_EQ(plan(R"({"server":"dashboard","packets":{"drop":1},"seed":3})").body, "planned\n");
  const Got refused = plan(R"({"server":"dashboard","packets":{"lose":1}})");
  EXPECT_EQ(refused.status, 400);
  EXPECT_EQ(refused.body, "a wire has no fault \"lose\"\n");
}

TEST_F(LabTest, OneStorebagHasADashboard) {
  const Dictionary reel = listAt(root.path("lab/storebags/reel.plist"));
  const Dictionary* dashboard = dictionaryAt(*dictionaryAt(reel, "release"), "dashboard");
  ASSERT_NE(dashboard, nullptr);
  EXPECT_EQ(*stringAt(*dashboard, "ip"), "127.0.0.1");
  EXPECT_EQ(*stringAt(*dashboard, "port"), "${dashboardPort}");
  EXPECT_NE(peer.get(bagURL("reel")).body.size(), 0u);
  EXPECT_FALSE(dictionaryAt(listAt(root.path("lab/storebags/lumen.plist")), "release")
                   ->contains("dashboard"));
}

TEST_F(LabTest, OnlyItsOwnAuthorityVouchesForIt) {
  const ScratchRoot elsewhere;
  const TLSIdentity other(elsewhere.path("tls"));
  EXPECT_EQ(Peer(other.caFile()).get(bagURL("lumen")).code, CURLE_PEER_FAILED_VERIFICATION);
}

TEST(LabAgain, KeepsWhatAPersonMayHaveEditedAndItsKeys) {
  const ScratchRoot root;
  const Paths paths(root.path());
  const std::string kept[] = {paths.deviceFile, paths.infoFile,
                              paths.entitlementsFolder + "/lab.plist",
                              root.path("lab/storebags/lumen.plist")};
  { const Lab first(root.path()); }
  const std::string key = contentOf(paths.publicKeyFile);
  const std::string authority = contentOf(root.path("lab/tls/ca.pem"));
  EXPECT_NE(key, "");
  EXPECT_NE(authority, "");
  for (const std::string& file : kept) std::ofstream(file) << "edited";
  root.write("lab/received.jsonl", "{\"before\":1}\n");
  std::ofstream(paths.deploymentFile) << "of another port";
  Lab second(root.path());
  for (const std::string& file : kept) EXPECT_EQ(contentOf(file), "edited") << file;
  EXPECT_EQ(contentOf(paths.publicKeyFile), key);
  EXPECT_EQ(contentOf(root.path("lab/tls/ca.pem")), authority);
  EXPECT_EQ(contentOf(root.path("lab/received.jsonl")), "{\"before\":1}\n");
  EXPECT_EQ(*stringAt(listAt(paths.deploymentFile), "ProductionStorebagHost"),
            "localhost:" + std::to_string(second.storebags().port()));
}

TEST(LabAgain, WhatIsTheProgramsOwnIsWrittenAnew) {
  const ScratchRoot root;
  root.write("usr/share/corvid/sandbox/com.halcyon.corvidd.plist", "old");
  root.write("usr/share/corvid/publicKey.der", "old");
  const Lab lab(root.path());
  EXPECT_EQ(contentOf(root.path("usr/share/corvid/sandbox/com.halcyon.corvidd.plist")),
            contentOf(CORVID_SANDBOX_PROFILE));
  EXPECT_NE(contentOf(root.path("usr/share/corvid/publicKey.der")), "old");
}

TEST(LabRootFolders, ARelativeRootWithBlanksIsMadeWhereItIsMissing) {
  const ScratchRoot scratch;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(scratch.path());
  {
    const Lab lab("a folder/./\u00fc");
    EXPECT_EQ(*stringAt(lab.addresses(), "received"),
              scratch.path("a folder/\u00fc/lab/received.jsonl"));
    EXPECT_TRUE(
        std::filesystem::exists(scratch.path("a folder/\u00fc/etc/corvid/deployment.plist")));
  }
  std::filesystem::current_path(before);
}

TEST_F(LabTest, AnotherLabCannotHaveTheSameRoot) {
  const std::string deployment = contentOf(paths.deploymentFile);
  EXPECT_EQ(failureOf(root.path()), "another lab serves " + root.path());
  EXPECT_EQ(contentOf(paths.deploymentFile), deployment);
}

TEST_F(LabTest, APortInUseIsNamed) {
  const ScratchLab other;
  const std::uint16_t port = lab.storebags().port();
  EXPECT_EQ(failureOf(other.path(), {.reportPort = port}),
            "cannot listen on 127.0.0.1 port " + std::to_string(port) + ": Address already in use");
}

TEST(LabRootFolders, AFileInTheWayIsNamed) {
  const ScratchRoot scratch;
  scratch.write("file", "x");
  EXPECT_EQ(failureOf(scratch.path("file")),
            "cannot make the folder " + scratch.path("file/lab/tls") + ": Not a directory");
  const ScratchLab other;
  std::filesystem::create_directories(other.path("lab/received.jsonl"));
  EXPECT_EQ(failureOf(other.path()), "cannot write " + other.path("lab/received.jsonl"));
}

}  // namespace
}  // namespace corvid::lab
