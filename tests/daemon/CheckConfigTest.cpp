#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "daemon/CheckConfig.h"
#include "platform/data/PropertyList.h"
#include "tests/config/Signers.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using Kind = ConfigFinding::Kind;

constexpr std::string_view profile = "usr/share/corvid/sandbox/com.halcyon.corvidd.plist";
constexpr std::string_view deployment = "etc/corvid/deployment.plist";
constexpr std::string_view publicKey = "usr/share/corvid/publicKey.der";
constexpr std::string_view info = "usr/share/corvid/Info.plist";
constexpr std::string_view entitlements = "etc/corvid/entitlements.d";
constexpr std::string_view device = "etc/corvid/device.plist";
constexpr std::string_view preferences = "var/lib/corvidd/Preferences";

class CheckConfig : public testing::Test {
 protected:
  // Everything in place.
  CheckConfig() {
    writeList(deployment, Dictionary{{"ProductionStorebagHost", "bags.example:8443"}});
    root.write(publicKey, trustedSigner().publicKeyDER());
    writeList(info, Dictionary{{"BundleVersion", "8.1"}});
    root.entitleThisUser();
    writeList(device, Dictionary{{"DeviceName", "Robin"}, {"SerialNumber", ""}});
    writeList(fmt::format("{}/com.halcyon.corvid.plist", preferences),
              Dictionary{{"environmentType", 4}});
  }

  void writeList(std::string_view path, const Dictionary& content) {
    root.write(path, writeXMLPropertyList(content));
  }
  // What an entitlement file of this content leads to.
  void writeEntitlements(const Value& match, const Value& granted) {
    writeList("etc/corvid/entitlements.d/test.plist",
              Dictionary{{"match", match}, {"entitlements", granted}});
  }

  // The findings about the file, as "kind: text" without the path.
  std::vector<std::string> findings(std::string_view path) const {
    std::vector<std::string> texts;
    const std::string prefix = root.path(path) + ": ";
    for (const auto& [kind, text] : checkConfig(Paths(root.path())))
      if (text.starts_with(prefix))
        texts.push_back(fmt::format("{}: {}",
                                    kind == Kind::right  ? "right"
                                    : kind == Kind::note ? "note"
                                                         : "wrong",
                                    text.substr(prefix.size())));
    return texts;
  }
  std::string finding(std::string_view path) const {
    const auto texts = findings(path);
    EXPECT_EQ(texts.size(), 1u) << path;
    return texts.empty() ? "" : texts.front();
  }
  std::string entitlementFinding() const { return finding("etc/corvid/entitlements.d/test.plist"); }

  ScratchRoot root;
};

const Dictionary grant{{"com.halcyon.private.corvidd", true}};

TEST_F(CheckConfig, FindsNothingWrongWhereEverythingIsInPlace) {
  const auto findings = checkConfig(Paths(root.path()));
  EXPECT_FALSE(findings.empty());
  for (const auto& [kind, text] : findings) EXPECT_EQ(kind, Kind::right) << text;
  EXPECT_EQ(printConfigCheck(Paths(root.path())), 0);
}

TEST_F(CheckConfig, SaysWhatItFound) {
  EXPECT_EQ(finding(profile), "right: a sandbox profile");
  EXPECT_EQ(finding(publicKey), "right: an RSA public key");
  EXPECT_EQ(finding(info), "right: version 8.1");
  EXPECT_EQ(entitlementFinding(), "right: lets those connect who match");
  EXPECT_EQ(finding(device), "right: answers for 2 keys");
  EXPECT_EQ(finding("var/lib/corvidd/Preferences/com.halcyon.corvid.plist"),
            "right: 1 preferences");
  EXPECT_NE(finding(deployment).find("bags.example:8443"), std::string::npos);
}

TEST_F(CheckConfig, TakesWhatIsOptionalAsANote) {
  root.remove(deployment);
  root.remove(info);
  root.remove(device);
  root.remove(preferences);
  EXPECT_EQ(finding(deployment), "note: missing: no storebag server is reached");
  EXPECT_EQ(finding(info), "note: missing: the version is 8.0");
  EXPECT_EQ(finding(device), "note: missing: the machine answers, and is no internal build");
  EXPECT_EQ(finding(preferences), "note: missing: made when the first preference is set");
  EXPECT_EQ(printConfigCheck(Paths(root.path())), 0);
}

TEST_F(CheckConfig, FindsADamagedFileWrong) {
  for (const std::string_view path :
       {deployment, info, device, std::string_view("etc/corvid/entitlements.d/test.plist"),
        std::string_view("var/lib/corvidd/Preferences/com.halcyon.corvid.plist")}) {
    SCOPED_TRACE(path);
    root.write(path, "{ damaged");
    EXPECT_TRUE(finding(path).starts_with("wrong: "));
    EXPECT_EQ(printConfigCheck(Paths(root.path())), 1);
  }
}

TEST_F(CheckConfig, FindsAListThatIsNoDictionaryWrong) {
  root.write(info, writeXMLPropertyList(Array{1}));
  EXPECT_EQ(
      finding(info),
      "wrong: not a dictionary; make it a property list with a dictionary that the daemon may read");
}

TEST_F(CheckConfig, NeedsASandboxProfile) {
  root.remove(profile);
  EXPECT_TRUE(finding(profile).starts_with("wrong: "));
  root.write(profile, writeXMLPropertyList(Dictionary{{"unheardOf", true}}));
  EXPECT_TRUE(finding(profile).starts_with("wrong: "));
  EXPECT_EQ(printConfigCheck(Paths(root.path())), 1);
}

TEST_F(CheckConfig, NeedsAPublicKey) {
  root.write(publicKey, "-----BEGIN PUBLIC KEY-----");
  EXPECT_TRUE(finding(publicKey).starts_with("wrong: no RSA public key in DER form"));
  root.remove(publicKey);
  EXPECT_TRUE(finding(publicKey).starts_with("wrong: "));
}

TEST_F(CheckConfig, TakesABarePublicKeyToo) {
  root.write(publicKey, barePublicKeyDER(trustedSigner()));
  EXPECT_EQ(finding(publicKey), "right: an RSA public key");
}

TEST_F(CheckConfig, KnowsHowLongEachFileMayBe) {
  root.write(publicKey, trustedSigner().publicKeyDER() + std::string(20'000, '\0'));
  EXPECT_TRUE(finding(publicKey).starts_with("wrong: Longer than 16384 bytes"));
  const Dictionary version{{"BundleVersion", "8.1"}, {"filler", std::string(300'000, 'x')}};
  writeList(info, version);
  EXPECT_TRUE(finding(info).starts_with("wrong: longer than 262144 bytes"));
  const Dictionary filler{{"filler", std::string(3'000'000, 'x')}};
  writeList("var/lib/corvidd/Preferences/com.halcyon.corvid.plist", filler);
  EXPECT_EQ(finding("var/lib/corvidd/Preferences/com.halcyon.corvid.plist"),
            "right: 1 preferences");
}

TEST_F(CheckConfig, FindsADeploymentOfTheWrongTypesWrong) {
  writeList(deployment, Dictionary{{"ProductionStorebagHost", 5}, {"AllowInsecureHTTP", "yes"}});
  EXPECT_EQ(
      findings(deployment).front(),
      "wrong: \"ProductionStorebagHost\" is of the wrong type and is passed over; correct it");
  EXPECT_EQ(findings(deployment).size(), 3u);
}

TEST_F(CheckConfig, NeedsAVersionThatIsAText) {
  writeList(info, Dictionary{{"BundleVersion", 8}});
  EXPECT_EQ(finding(info), "wrong: no text under BundleVersion, so the version is 8.0; add one");
}

TEST_F(CheckConfig, LooksIntoTheCertificatesThatTheDeploymentNames) {
  writeList(deployment, Dictionary{{"CAFile", root.path("ca.pem")}});
  EXPECT_TRUE(finding("ca.pem").starts_with("wrong: "));
  root.write("ca.pem", "no certificate");
  EXPECT_TRUE(finding("ca.pem").starts_with("wrong: no certificate in PEM form"));
  root.write("ca.pem", "-----BEGIN CERTIFICATE-----\n");
  EXPECT_EQ(finding("ca.pem"), "right: certificates to trust");
}

TEST_F(CheckConfig, NotesThatPlainHTTPIsLetThrough) {
  writeList(deployment, Dictionary{{"AllowInsecureHTTP", true}});
  ASSERT_EQ(findings(deployment).size(), 2u);
  EXPECT_TRUE(findings(deployment)[1].starts_with("note: AllowInsecureHTTP"));
}

TEST_F(CheckConfig, TellsThePortsThatServersAreReachedAt) {
  writeList(deployment,
            Dictionary{{"ProductionStorebagHost", "bags.example:8443"}, {"TCPPorts", Array{8080}}});
  ASSERT_EQ(findings(deployment).size(), 2u);
  EXPECT_EQ(findings(deployment)[1],
            "note: TCPPorts: servers are reached at the ports 53, 443, 8080, 8443 only");
}

TEST_F(CheckConfig, NeedsSomebodyWhoMayConnect) {
  root.remove(entitlements);
  EXPECT_TRUE(finding(entitlements).starts_with("wrong: entitles nobody"));
  writeEntitlements(Dictionary{{"user", "root"}},
                    Dictionary{{"com.halcyon.private.corvidd", false}});
  EXPECT_EQ(entitlementFinding(), "right: refuses those who match");
  EXPECT_TRUE(finding(entitlements).starts_with("wrong: entitles nobody"));
  writeEntitlements(Dictionary{{"user", "root"}}, Dictionary{{"another", true}});
  EXPECT_TRUE(entitlementFinding().starts_with("note: "));
}

TEST_F(CheckConfig, FindsAMatchThatMatchesNobodyWrong) {
  writeEntitlements(Dictionary{}, grant);
  EXPECT_TRUE(entitlementFinding().starts_with("wrong: refuses everybody; "));
  writeEntitlements("everybody", grant);
  EXPECT_TRUE(entitlementFinding().starts_with("wrong: refuses everybody; "));
  writeEntitlements(Dictionary{{"path", "/bin/true"}}, grant);
  EXPECT_TRUE(entitlementFinding().starts_with(
      "wrong: refuses whom it could concern, because nothing is known of"));
  writeEntitlements(Dictionary{{"unit", 7}}, grant);
  EXPECT_EQ(entitlementFinding(),
            "wrong: refuses whom it could concern, because \"unit\" is no text; correct its type");
  writeEntitlements(Dictionary{{"user", true}}, grant);
  EXPECT_EQ(
      entitlementFinding(),
      "wrong: refuses whom it could concern, because \"user\" is no name or number; correct its type");
}

TEST_F(CheckConfig, FindsAnEntitlementThatIsNoBooleanWrong) {
  writeEntitlements(Dictionary{{"group", 0}}, Dictionary{{"com.halcyon.private.corvidd", 1}});
  EXPECT_TRUE(entitlementFinding().starts_with("wrong: com.halcyon.private.corvidd is no boolean"));
  writeEntitlements(Dictionary{{"group", 0}}, "all");
  EXPECT_TRUE(entitlementFinding().starts_with("wrong: refuses those who match; "));
}

TEST_F(CheckConfig, FindsADeviceAnswerThatIsNoTextWrong) {
  writeList(device, Dictionary{{"SerialNumber", 12}});
  EXPECT_EQ(finding(device),
            "wrong: \"SerialNumber\" is no text and is passed over; write it as one");
}

TEST_F(CheckConfig, ChangesNothing) {
  root.remove("var");
  checkConfig(Paths(root.path()));
  EXPECT_FALSE(std::filesystem::exists(root.path("var")));
  EXPECT_FALSE(std::filesystem::exists(root.path("run")));
}

}  // namespace
}  // namespace corvid
