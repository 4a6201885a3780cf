#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "base/Reading.h"
#include "daemon/CheckConfig.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/config/Signers.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using Kind = ConfigFinding::Kind;

constexpr std::string_view profile = "usr/share/corvid/sandbox/com.halcyon.corvidd.plist";
constexpr std::string_view deploymentFile = "etc/corvid/deployment.plist";
constexpr std::string_view publicKey = "usr/share/corvid/publicKey.der";
constexpr std::string_view infoFile = "usr/share/corvid/Info.plist";
constexpr std::string_view entitlements = "etc/corvid/entitlements.d";
constexpr std::string_view device = "etc/corvid/device.plist";
constexpr std::string_view preferences = "var/lib/corvidd/Preferences";

class CheckConfig : public testing::Test {
 protected:
  // Everything in place.
  CheckConfig() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG", "TZ"}) unsetenv(name);
    writeList(deploymentFile, Dictionary{{"ProductionStorebagHost", "bags.example:8443"}});
    root.write(publicKey, trustedSigner().publicKeyDER());
    writeList(infoFile, Dictionary{{"BundleVersion", "8.1"}});
    root.entitleThisUser();
    writeList(device, Dictionary{{"DeviceName", "Robin"}, {"SerialNumber", ""}});
    writePreferences("com.halcyon.corvid", Dictionary{{"environmentType", 4}});
    writePreferences("com.halcyon.diagnostics", Dictionary{{"SubmitDiagnostics", true}});
    root.write("etc/locale.conf", "LANG=de_DE.UTF-8\n");
    root.write("etc/os-release", "NAME=\"Birch OS\"\nVERSION_ID=3\n");
  }

  void writeList(std::string_view path, const Dictionary& content) {
    root.write(path, writeXMLPropertyList(content));
  }
  void writePreferences(std::string_view suite, const Dictionary& content) {
    writeList(fmt::format("{}/{}.plist", preferences, suite), content);
  }
  void setMode(std::string_view path, mode_t mode) { chmod(root.path(path).c_str(), mode); }
  // What an entitlement file of this content leads to.
  void writeEntitlements(const Value& match, const Value& granted) {
    writeList("etc/corvid/entitlements.d/test.plist",
              Dictionary{{"match", match}, {"entitlements", granted}});
  }

  // The findings about the file, as "kind: text" without the path.
  std::vector<std::string> findings(std::string_view path) const {
    std::vector<std::string> texts;
    for (const ConfigFinding& one : about(root.path(path)))
      texts.push_back(fmt::format("{}: {}",
                                  one.kind == Kind::right  ? "right"
                                  : one.kind == Kind::note ? "note"
                                                           : "wrong",
                                  one.what));
    return texts;
  }
  // Those of this whole path, or word.
  std::vector<ConfigFinding> about(const std::string& path) const {
    std::vector<ConfigFinding> found = checkConfig(Paths(root.path())).all();
    std::erase_if(found, [&](const ConfigFinding& one) { return one.path != path; });
    return found;
  }
  // Whether what starts so is found about the file.
  bool finds(std::string_view path, std::string_view beginning) const {
    for (const std::string& text : findings(path))
      if (text.starts_with(beginning)) return true;
    ADD_FAILURE() << path << ": " << fmt::format("{}", fmt::join(findings(path), "\n"));
    return false;
  }
  // What the daemon would be told of the device.
  std::string deviceFact(std::string_view beginning) const {
    for (const ConfigFinding& one : about("device"))
      if (one.what.starts_with(beginning)) return one.what;
    return {};
  }
  // The command that goes with the only finding about the file that has one.
  std::string command(std::string_view path) const {
    std::string only;
    for (const ConfigFinding& one : about(root.path(path))) {
      EXPECT_TRUE(only.empty() || one.command.empty()) << one.command;
      if (!one.command.empty()) only = one.command;
    }
    return only;
  }
  bool isRight() const { return checkConfig(Paths(root.path())).count(Kind::wrong) == 0; }
  std::string finding(std::string_view path) const {
    const auto texts = findings(path);
    EXPECT_EQ(texts.size(), 1u) << path;
    return texts.empty() ? "" : texts.front();
  }
  std::vector<std::string> filesBelow() const {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root.path()))
      paths.push_back(entry.path());
    std::ranges::sort(paths);
    return paths;
  }
  std::string entitlementFinding() const { return finding("etc/corvid/entitlements.d/test.plist"); }

  ScratchRoot root;
};

const Dictionary grant{{"com.halcyon.private.corvidd", true}};

TEST_F(CheckConfig, FindsNothingWrongWhereEverythingIsInPlace) {
  const auto findings = checkConfig(Paths(root.path()));
  EXPECT_FALSE(findings.all().empty());
  for (const ConfigFinding& one : findings.all())
    EXPECT_EQ(one.kind, Kind::right) << one.path << ": " << one.what;
}

TEST_F(CheckConfig, SaysWhatItFound) {
  EXPECT_EQ(finding(profile), "right: a sandbox profile");
  EXPECT_EQ(finding(publicKey), "right: an RSA public key");
  EXPECT_EQ(finding(infoFile), "right: version 8.1");
  EXPECT_EQ(entitlementFinding(), "right: lets those connect who match");
  EXPECT_EQ(finding(device), "right: answers for 2 keys");
  EXPECT_EQ(finding("var/lib/corvidd/Preferences/com.halcyon.corvid.plist"),
            "right: 1 preferences");
  EXPECT_NE(finding(deploymentFile).find("bags.example:8443"), std::string::npos);
}

TEST_F(CheckConfig, TakesWhatIsOptionalAsANote) {
  root.remove(deploymentFile);
  root.remove(infoFile);
  root.remove(device);
  root.remove(preferences);
  EXPECT_EQ(finding(deploymentFile), "note: missing: no storebag server is reached");
  EXPECT_EQ(finding(infoFile), "note: missing: the version is 8.0");
  EXPECT_EQ(finding(device), "note: missing: the machine answers, and is no internal build");
  EXPECT_EQ(finding(preferences), "note: missing: made when the first preference is set");
  EXPECT_TRUE(isRight());
}

TEST_F(CheckConfig, FindsADamagedFileWrong) {
  for (const std::string_view path :
       {deploymentFile, infoFile, device, std::string_view("etc/corvid/entitlements.d/test.plist"),
        std::string_view("var/lib/corvidd/Preferences/com.halcyon.corvid.plist")}) {
    SCOPED_TRACE(path);
    root.write(path, "{ damaged");
    EXPECT_TRUE(finding(path).starts_with("wrong: "));
    EXPECT_FALSE(isRight());
  }
}

TEST_F(CheckConfig, FindsAListThatIsNoDictionaryWrong) {
  root.write(infoFile, writeXMLPropertyList(Array{1}));
  EXPECT_EQ(
      finding(infoFile),
      "wrong: not a dictionary; make it a property list with a dictionary that the daemon may read");
}

TEST_F(CheckConfig, NeedsASandboxProfile) {
  root.remove(profile);
  EXPECT_TRUE(finding(profile).starts_with("wrong: "));
  root.write(profile, writeXMLPropertyList(Dictionary{{"unheardOf", true}}));
  EXPECT_TRUE(finding(profile).starts_with("wrong: "));
  EXPECT_FALSE(isRight());
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

TEST_F(CheckConfig, LooksIntoFurtherKeysWhichTakeThePlaceOfAMissingMainOne) {
  const std::string further = "etc/corvid/keys.d/new.der";
  root.write(further, "no key");
  EXPECT_TRUE(finding(further).starts_with("wrong: no RSA public key in DER form"));
  root.write(further, strangeSigner().publicKeyDER());
  EXPECT_EQ(finding(further), "right: an RSA public key");
  root.remove(publicKey);
  EXPECT_EQ(finding(publicKey), "note: missing: storebags are taken by the further keys alone");
  root.write("etc/corvid/keys.d/new.pem", strangeSigner().publicKeyDER());
  EXPECT_EQ(finding("etc/corvid/keys.d/new.pem"),
            "wrong: is not read: keys in this folder are files *.der");
}

TEST_F(CheckConfig, KnowsHowLongEachFileMayBe) {
  root.write(publicKey, trustedSigner().publicKeyDER() + std::string(20'000, '\0'));
  EXPECT_TRUE(finding(publicKey).starts_with("wrong: Longer than 16384 bytes"));
  const Dictionary version{{"BundleVersion", "8.1"}, {"filler", std::string(300'000, 'x')}};
  writeList(infoFile, version);
  EXPECT_TRUE(finding(infoFile).starts_with("wrong: longer than 262144 bytes"));
  const Dictionary filler{{"uuid:name:service", std::string(3'000'000, 'x')}};
  writeList("var/lib/corvidd/Preferences/com.halcyon.corvid.plist", filler);
  EXPECT_EQ(finding("var/lib/corvidd/Preferences/com.halcyon.corvid.plist"),
            "right: 1 preferences");
}

TEST_F(CheckConfig, FindsADeploymentOfTheWrongTypesWrong) {
  writeList(deploymentFile,
            Dictionary{{"ProductionStorebagHost", 5}, {"AllowInsecureHTTP", "yes"}});
  EXPECT_EQ(findings(deploymentFile).front(),
            "wrong: \"ProductionStorebagHost\" is of the wrong type");
  EXPECT_EQ(findings(deploymentFile).size(), 3u);
}

TEST_F(CheckConfig, FindsAJitterBelow0OrAbove0Point5Wrong) {
  for (const double jitter : {-0.1, 0.51}) {
    writeList(deploymentFile, Dictionary{{"RefreshJitter", jitter}});
    EXPECT_TRUE(std::ranges::any_of(findings(deploymentFile), [](const std::string& found) {
      return found.starts_with(
          "wrong: \"RefreshJitter\" takes a number from 0 to 0.5, and counts as 0");
    })) << jitter;
  }
  writeList(deploymentFile, Dictionary{{"RefreshJitter", 0.5}});
  EXPECT_EQ(finding(deploymentFile).find("wrong: "), std::string::npos);
}

TEST_F(CheckConfig, NeedsAVersionThatIsAText) {
  writeList(infoFile, Dictionary{{"BundleVersion", 8}});
  EXPECT_EQ(finding(infoFile),
            "wrong: no text under BundleVersion, so the version is 8.0; add one");
}

TEST_F(CheckConfig, LooksIntoTheCertificatesThatTheDeploymentNames) {
  writeList(deploymentFile, Dictionary{{"CAFile", root.path("ca.pem")}});
  EXPECT_TRUE(finding("ca.pem").starts_with("wrong: "));
  root.write("ca.pem", "no certificate");
  EXPECT_TRUE(finding("ca.pem").starts_with("wrong: no certificate in PEM form"));
  root.write("ca.pem", "-----BEGIN CERTIFICATE-----\n");
  EXPECT_EQ(finding("ca.pem"), "right: certificates to trust");
}

TEST_F(CheckConfig, NotesThatPlainHTTPIsLetThrough) {
  writeList(deploymentFile, Dictionary{{"AllowInsecureHTTP", true}});
  ASSERT_EQ(findings(deploymentFile).size(), 2u);
  EXPECT_TRUE(findings(deploymentFile)[1].starts_with("note: AllowInsecureHTTP"));
}

TEST_F(CheckConfig, TellsThePortsThatServersAreReachedAt) {
  writeList(deploymentFile,
            Dictionary{{"ProductionStorebagHost", "bags.example:8443"}, {"TCPPorts", Array{8080}}});
  ASSERT_EQ(findings(deploymentFile).size(), 2u);
  EXPECT_EQ(findings(deploymentFile)[1],
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
  EXPECT_EQ(finding(device), "wrong: \"SerialNumber\" is no text and is passed over");
}

TEST_F(CheckConfig, FindsUnknownKeysWrongAndNamesTheRightOne) {
  writeList(deploymentFile, Dictionary{{"ProductionStoreBagHost", "bags.example"}});
  EXPECT_EQ(findings(deploymentFile).front(),
            "wrong: \"ProductionStoreBagHost\" is nothing that corvidd reads; it reads "
            "\"ProductionStorebagHost\"");
  EXPECT_EQ(command(deploymentFile),
            "sed -i 's|<key>ProductionStoreBagHost</key>|<key>ProductionStorebagHost</key>|' " +
                root.path(deploymentFile));
  writeList(deploymentFile,
            Dictionary{{"ProductionStorebagHost", "bags.example"}, {"Colour", "red"}});
  EXPECT_EQ(findings(deploymentFile).front(), "wrong: \"Colour\" is nothing that corvidd reads");
  EXPECT_EQ(command(deploymentFile), "");
  writeList(device, Dictionary{{"DeviceNmae", "Robin"}});
  EXPECT_TRUE(finds(device, "wrong: \"DeviceNmae\" is nothing that corvidd reads"));
  writeList("etc/corvid/entitlements.d/test.plist",
            Dictionary{{"match", Dictionary{{"user", "root"}}},
                       {"entitlements", grant},
                       {"matches", Dictionary{}}});
  EXPECT_TRUE(finds("etc/corvid/entitlements.d/test.plist", "wrong: \"matches\" is nothing"));
  writeEntitlements(Dictionary{{"user", "root"}}, Dictionary{{"com.halcyon.private.corvid", true}});
  EXPECT_TRUE(finds("etc/corvid/entitlements.d/test.plist",
                    "wrong: nothing is known of \"com.halcyon.private.corvid\"; there is"));
}

TEST_F(CheckConfig, FindsAHostWithASchemeOrAPathWrong) {
  for (const char* host : {"https://bags.example", "bags.example/bags", "https://bags.example/bags",
                           "user@bags.example", "bags.example:", "bags.example:0",
                           "bags.example:65536", "bags example", ":8443"}) {
    writeList(deploymentFile, Dictionary{{"ProductionStorebagHost", host}});
    EXPECT_TRUE(
        finds(deploymentFile, "wrong: \"ProductionStorebagHost\" takes a host, or host:port"))
        << host;
  }
  for (const char* host : {"bags.example", "bags.example:8443", "127.0.0.1:1", "[::1]:8443"}) {
    writeList(deploymentFile, Dictionary{{"ProductionStorebagHost", host}});
    EXPECT_TRUE(isRight()) << host;
  }
}

TEST_F(CheckConfig, FindsUsersGroupsAndUnitsThatDoNotExistWrong) {
  writeEntitlements(Dictionary{{"user", "nobody-of-that-name"}}, grant);
  EXPECT_TRUE(
      finds("etc/corvid/entitlements.d/test.plist", "wrong: there is no user nobody-of-that-name"));
  writeEntitlements(Dictionary{{"group", "nobody-of-that-name"}}, grant);
  EXPECT_TRUE(finds("etc/corvid/entitlements.d/test.plist",
                    "wrong: there is no group nobody-of-that-name"));
  writeEntitlements(Dictionary{{"user", -1}}, grant);
  EXPECT_TRUE(finds("etc/corvid/entitlements.d/test.plist", "wrong: there is no user -1"));
  writeEntitlements(Dictionary{{"unit", "app.service"}}, grant);
  EXPECT_TRUE(finds("etc/corvid/entitlements.d/test.plist",
                    "note: whether there is a unit app.service cannot be told here"));
  root.write("etc/systemd/system/other.service", "");
  root.write("usr/lib/systemd/system/many@.service", "");
  EXPECT_TRUE(finds("etc/corvid/entitlements.d/test.plist", "wrong: there is no unit app.service"));
  for (const char* unit : {"other.service", "many@1.service", "session-3.scope"}) {
    writeEntitlements(Dictionary{{"unit", unit}}, grant);
    EXPECT_TRUE(isRight()) << unit;
  }
  writeEntitlements(Dictionary{{"unit", "other"}}, grant);
  EXPECT_TRUE(
      finds("etc/corvid/entitlements.d/test.plist", "wrong: \"other\" is the name of no unit"));
}

TEST_F(CheckConfig, FindsAFileOfAnotherSuffixWrong) {
  const std::string list = contentOf(root.path("etc/corvid/entitlements.d/test.plist"));
  const std::string meant = root.write("etc/corvid/entitlements.d/app.conf", list);
  EXPECT_TRUE(finds("etc/corvid/entitlements.d/app.conf", "wrong: counts for nothing"));
  EXPECT_EQ(command("etc/corvid/entitlements.d/app.conf"),
            fmt::format("mv -n {} {}/app.plist", meant, root.path(entitlements)));
  // A copy that somebody keeps must not begin to count.
  const std::string copy = root.write("etc/corvid/entitlements.d/old.plist.bak", list);
  EXPECT_EQ(command("etc/corvid/entitlements.d/old.plist.bak"),
            fmt::format("mv -n {} {}/..", copy, root.path(entitlements)));
  root.write("var/lib/corvidd/Preferences/com.halcyon.corvid.xml", "");
  EXPECT_TRUE(finds("var/lib/corvidd/Preferences/com.halcyon.corvid.xml", "wrong: "));
  root.write("var/lib/corvidd/Preferences/com.halcyon.corvid.plist.damaged-1", "");
  EXPECT_TRUE(finds("var/lib/corvidd/Preferences/com.halcyon.corvid.plist.damaged-1", "note: "));
}

TEST_F(CheckConfig, FindsAPreferenceThatNobodyReadsOrThatCannotBeMeantWrong) {
  const std::string suite = "var/lib/corvidd/Preferences/com.halcyon.corvid.plist";
  const std::pair<std::string, Value> faulty[] = {{"environmenttype", 4},
                                                  {"environmentType", 0},
                                                  {"environmentType", 5},
                                                  {"environmentType", "release"},
                                                  {"corvid_storebag_url", "bags.example"},
                                                  {"httpsPostURL", 5},
                                                  {"httpsRealtimePostURL", "/events"},
                                                  {"forceEventLogging", Array{}},
                                                  {"identifierRespectingConsent", 7},
                                                  {"SubmitDiagnostics", true}};
  for (const auto& [key, value] : faulty) {
    writePreferences("com.halcyon.corvid", Dictionary{{key, value}});
    EXPECT_TRUE(finds(suite, fmt::format("wrong: \"{}\" ", key)));
    EXPECT_TRUE(command(suite).ends_with("prefs --suite com.halcyon.corvid delete " + key));
  }
  writePreferences("com.halcyon.corvid",
                   Dictionary{{"environmentType", 1},
                              {"corvid_storebag_url", "https://bags.example/x"},
                              {"httpsPostURL", "https://events.example/"},
                              {"httpsRealtimePostURL", "https://events.example/"},
                              {"forceEventLogging", true},
                              {"identifierRespectingConsent", "A"},
                              {"identifierOverridingConsent", "B"},
                              {"uuid:name:service", "C"}});
  writePreferences("com.halcyon.corvid.identifiers", Dictionary{{"Uses", Array{}}});
  writePreferences("com.halcyon.timed", Dictionary{{"TMAutomaticTimeZoneEnabled", false}});
  EXPECT_TRUE(isRight());
  writePreferences("com.halcyon.diagnostics", Dictionary{{"SubmitDiagnostics", 1}});
  EXPECT_TRUE(finds("var/lib/corvidd/Preferences/com.halcyon.diagnostics.plist",
                    "wrong: \"SubmitDiagnostics\" takes true or false"));
  writePreferences("org.example", Dictionary{{"a", 1}});
  EXPECT_TRUE(finds("var/lib/corvidd/Preferences/org.example.plist",
                    "wrong: is a suite that no code reads"));
}

TEST_F(CheckConfig, FindsWhatOthersCanWriteWrong) {
  for (const std::string_view path :
       {deploymentFile, publicKey, entitlements, device, profile, std::string_view("etc"),
        std::string_view("var/lib/corvidd")}) {
    struct stat before {};
    ASSERT_EQ(stat(root.path(path).c_str(), &before), 0);
    setMode(path, before.st_mode | S_IWOTH);
    EXPECT_TRUE(finds(path, "wrong: everybody can write it")) << path;
    EXPECT_EQ(command(path), "chmod go-w " + root.path(path));
    setMode(path, before.st_mode);
  }
  EXPECT_TRUE(isRight());
  setMode("etc", 01777);
  EXPECT_TRUE(isRight()) << "nobody replaces what is another's there";
}

TEST_F(CheckConfig, FindsWhatBelongsToSomebodyElseWrong) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  ASSERT_EQ(chown(root.path(deploymentFile).c_str(), 4711, 0), 0);
  EXPECT_TRUE(finds(deploymentFile, "wrong: belongs to user 4711"));
  ASSERT_EQ(chown(root.path(deploymentFile).c_str(), 0, 4711), 0);
  setMode(deploymentFile, 0664);
  EXPECT_TRUE(finds(deploymentFile, "wrong: its group can write it"));
}

TEST_F(CheckConfig, FindsAKeyThatIsTooShortOrOfAnotherKindWrong) {
  for (const char* kind : {"-algorithm RSA -pkeyopt rsa_keygen_bits:1024",
                           "-algorithm EC -pkeyopt ec_paramgen_curve:P-256"}) {
    const std::string make =
        fmt::format("openssl genpkey {} 2>/dev/null | openssl pkey -pubout -outform DER -out '{}'",
                    kind, root.path(publicKey));
    ASSERT_EQ(std::system(make.c_str()), 0);
    EXPECT_TRUE(finding(publicKey).ends_with("; sign the storebags with a new pair's private key"))
        << finding(publicKey);
  }
}

TEST_F(CheckConfig, FindsAPrivateKeyWhereThePublicOneBelongs) {
  root.write(publicKey, contentOf(signingKeyFile("trusted")));
  EXPECT_NE(finding(publicKey).find("whoever has read it can sign storebags"), std::string::npos);
  EXPECT_EQ(command(publicKey).find("rsa -outform DER"), std::string::npos);
}

TEST_F(CheckConfig, NotesWhatKeepsADeviceSilent) {
  root.remove("etc/locale.conf");
  root.remove("var/lib/corvidd/Preferences/com.halcyon.diagnostics.plist");
  writeList(device, Dictionary{{"DeviceName", ""}});
  EXPECT_TRUE(isRight());
  EXPECT_FALSE(deviceFact("has no country").empty());
  EXPECT_FALSE(deviceFact("the user has not consented").empty());
  EXPECT_FALSE(deviceFact("has no productFamily").empty());
}

TEST_F(CheckConfig, NamesTheSourceOfEachDeviceAnswer) {
  EXPECT_EQ(deviceFact("country"), "country is DE (locale.conf)");
  EXPECT_EQ(deviceFact("productFamily"), "productFamily is Robin (device.plist)");
  EXPECT_TRUE(deviceFact("hardwareType").ends_with(" Birch OS (architecture)"));
  EXPECT_EQ(deviceFact("productVersion"), "productVersion is 3 (os-release)");
  EXPECT_EQ(deviceFact("consent"), "consent is true (preference)");
  EXPECT_EQ(deviceFact("environment"), "environment is release (preference)");
}

TEST_F(CheckConfig, PrintsALineForEachFindingAndTheirNumber) {
  root.remove(infoFile);
  root.write(publicKey, "garbage\n");
  const Findings found = checkConfig(Paths(root.path()));
  const std::string text = found.text();
  EXPECT_TRUE(text.ends_with("\n1 wrong, 1 notes\n")) << text;
  EXPECT_NE(text.find("\nnote  " + root.path(infoFile) + ": missing"), std::string::npos) << text;
  EXPECT_NE(text.find("\nWRONG " + root.path(publicKey) + ": no RSA"), std::string::npos) << text;
  const auto json = parseJSON(found.json());
  ASSERT_TRUE(json);
  const Dictionary& object = *json.value().dictionary();
  EXPECT_EQ(integerAt(object, "wrong"), 1);
  EXPECT_EQ(integerAt(object, "notes"), 1);
  const Array& findings = *arrayAt(object, "findings");
  EXPECT_EQ(findings.size(), found.all().size());
  const Dictionary& first = *findings[0].dictionary();
  EXPECT_EQ(*stringAt(first, "kind"), "ok");
  EXPECT_EQ(*stringAt(first, "path"), "kernel");
  EXPECT_EQ(*stringAt(first, "what"), "has Landlock");
  EXPECT_TRUE(first.find("command")->isNull());
}

TEST_F(CheckConfig, SurvivesWhateverFilesAreCalled) {
  const std::string list = contentOf(root.path("etc/corvid/entitlements.d/test.plist"));
  root.write("etc/corvid/entitlements.d/two\nlines.conf", list);
  root.write("etc/corvid/entitlements.d/no\xfftext.conf", list);
  const Findings found = checkConfig(Paths(root.path()));
  EXPECT_EQ(found.count(Kind::wrong), 2u);
  const std::string text = found.text();
  EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(text, '\n')), found.all().size() + 1);
  const auto json = parseJSON(found.json());
  ASSERT_TRUE(json) << found.json();
  for (const Value& one : *arrayAt(*json.value().dictionary(), "findings")) {
    const bool isUntold = stringAt(*one.dictionary(), "path")->ends_with("text.conf");
    if (isUntold) {
      EXPECT_TRUE(one.dictionary()->find("command")->isNull());
    }
  }
}

TEST_F(CheckConfig, ChangesNothing) {
  root.remove("var");
  const auto before = filesBelow();
  checkConfig(Paths(root.path()));
  EXPECT_FALSE(std::filesystem::exists(root.path("var")));
  EXPECT_FALSE(std::filesystem::exists(root.path("run")));
  EXPECT_EQ(filesBelow(), before);
}

}  // namespace
}  // namespace corvid
