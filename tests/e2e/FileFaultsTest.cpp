// Files of the daemon's own that are damaged, of the wrong kind, or cannot be read.
// `--check-config` says so beforehand; the daemon starts all the same, except without its sandbox
// profile, names the file in one error line, and does without it.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr std::string_view preferences = "var/lib/corvidd/Preferences/com.halcyon.corvid.plist";
constexpr std::string_view spoiltDeployment = "etc/corvid/deployment.plist";
constexpr std::string_view device = "etc/corvid/device.plist";
constexpr std::string_view entitlements = "etc/corvid/entitlements.d/lab.plist";
constexpr std::string_view spoiltInfo = "usr/share/corvid/Info.plist";
constexpr std::string_view publicKey = "usr/share/corvid/publicKey.der";
constexpr std::string_view spoiltProfile = "usr/share/corvid/sandbox/com.halcyon.corvidd.plist";

enum class Damage { damaged, empty, noDictionary, huge, unreadable, folder };
constexpr Damage allDamages[] = {Damage::damaged, Damage::empty,      Damage::noDictionary,
                                 Damage::huge,    Damage::unreadable, Damage::folder};

std::string nameOfDamage(const testing::TestParamInfo<Damage>& test) {
  constexpr const char* names[] = {"Damaged", "Empty",      "NoDictionary",
                                   "Huge",    "Unreadable", "Folder"};
  return names[static_cast<std::size_t>(test.param)];
}

class FileFaults : public LabFixture, public testing::WithParamInterface<Damage> {
 protected:
  // Does to a file what the test is about.
  void spoil(std::string_view path) const {
    if (!std::filesystem::exists(_root.path(path)))
      _root.write(path, writeXMLPropertyList(Dictionary{{"sound", true}}));
    switch (GetParam()) {
      case Damage::damaged: _root.write(path, "<plist><dict><key>half an"); return;
      case Damage::empty: _root.write(path, ""); return;
      case Damage::noDictionary:
        _root.write(path, writeXMLPropertyList(Array{"an", "array"}));
        return;
      case Damage::huge:
        _root.write(path, writeXMLPropertyList(
                              Dictionary{{"filler", std::string(std::size_t{5} << 20, 'x')}}));
        return;
      case Damage::unreadable: chmod(_root.path(path).c_str(), 0); return;
      case Damage::folder:
        _root.remove(path);
        _root.write(std::string(path) + "/file", "");
        return;
    }
  }
  bool isMoved() const {
    return GetParam() == Damage::damaged || GetParam() == Damage::empty ||
           GetParam() == Damage::noDictionary;
  }

  // Whether the check finds the file wrong; what it printed goes.
  bool checkFindsWrong(std::string_view path) const {
    DaemonProcess check(_root, {"--check-config"});
    EXPECT_EQ(check.waitForExit(), 1);
    const std::string found = check.standardOutput();
    _root.remove("stdout");
    return found.find(fmt::format("WRONG {}: ", _root.path(path))) != std::string::npos;
  }
  // Error lines that name the file.
  std::size_t errorsAbout(std::string_view path) const {
    const std::string log = _daemon->standardError();
    std::size_t count = 0;
    for (std::size_t begin = 0, end; begin < log.size(); begin = end + 1) {
      end = std::min(log.find('\n', begin), log.size());
      const std::string_view line = std::string_view(log).substr(begin, end - begin);
      count += line.find(" error ") != line.npos && line.find(_root.path(path)) != line.npos;
    }
    return count;
  }
  void expectReports() {
    TestClient client(_root.path());
    EXPECT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
    const std::string mark = fmt::format("event {}", ++_sent);
    EXPECT_EQ(client.send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << _daemon->standardError();
  }

 private:
  int _sent = 0;
};
INSTANTIATE_TEST_SUITE_P(Files, FileFaults, testing::ValuesIn(allDamages), nameOfDamage);

TEST_P(FileFaults, PreferencesAreSetAsideOrLeftAndCountAsAbsent) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  spoil(preferences);
  EXPECT_TRUE(checkFindsWrong(preferences));
  startDaemon();
  expectReports();
  expectReports();
  // What stays is named once more, when a change of it is lost.
  EXPECT_EQ(errorsAbout(preferences), isMoved() ? 1u : 2u) << _daemon->standardError();
  EXPECT_EQ(std::filesystem::exists(_root.path(preferences) + ".damaged-1"), isMoved());
}

TEST_P(FileFaults, WithoutADeploymentNoStorebagServerIsReached) {
  spoil(spoiltDeployment);
  EXPECT_TRUE(checkFindsWrong(spoiltDeployment));
  startDaemon();
  EXPECT_EQ(errorsAbout(spoiltDeployment), 1u) << _daemon->standardError();
  EXPECT_EQ(timesLogged("main: The deployment cannot be used, so no storebag server is reached: "),
            1u);
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientType = 5}).text(), "none");
  EXPECT_EQ(_lab.storebags().connectionsAccepted(), 0u);
}

TEST_P(FileFaults, WithoutDeviceAnswersTheMachineAnswers) {
  spoil(device);
  EXPECT_TRUE(checkFindsWrong(device));
  startDaemon();
  TestClient client(_root.path());
  EXPECT_NE(client.configure({.clientType = 5}).text(), "none");
  EXPECT_EQ(errorsAbout(device), 1u) << _daemon->standardError();
}

TEST_P(FileFaults, WithoutEntitlementsNobodyConnectsUntilTheyAreMended) {
  const std::string sound = contentOf(_root.path(entitlements));
  spoil(entitlements);
  EXPECT_TRUE(checkFindsWrong(entitlements));
  startDaemon();
  {
    TestClient client(_root.path());
    EXPECT_EQ(client.configure({.clientType = 5}).text(),
              corvid_error_text(CORVID_ERROR_CONNECTION_LOST));
  }
  EXPECT_EQ(errorsAbout(entitlements), 1u) << _daemon->standardError();
  _root.remove(entitlements);
  _root.write(entitlements, sound);
  publish("lumen", storebagPostingTo(urlOf("events")));
  expectReports();
}

TEST_P(FileFaults, WithoutAVersionItIsTheOldest) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  spoil(spoiltInfo);
  EXPECT_TRUE(checkFindsWrong(spoiltInfo));
  startDaemon();
  expectReports();
  EXPECT_EQ(*stringAt(records().back(), "_reportVers"), "8.0");
}

TEST_P(FileFaults, WithoutAKeyNoStorebagIsTaken) {
  spoil(publicKey);
  EXPECT_TRUE(checkFindsWrong(publicKey));
  startDaemon();
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientType = 5}).text(), "none");
}

TEST_P(FileFaults, WithoutASandboxProfileItDoesNotStart) {
  spoil(spoiltProfile);
  EXPECT_TRUE(checkFindsWrong(spoiltProfile));
  _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr"});
  EXPECT_EQ(_daemon->waitForExit(), 255);
  EXPECT_EQ(errorsAbout(spoiltProfile), 1u) << _daemon->standardError();
}

class WrongTypes : public FileFaults {};

TEST_F(WrongTypes, OfTheDeploymentArePassedOverAndNamed) {
  _root.write(spoiltDeployment,
              writeXMLPropertyList(Dictionary{
                  {"ProductionStorebagHost", 5}, {"CAFile", true}, {"AllowInsecureHTTP", "yes"}}));
  EXPECT_TRUE(checkFindsWrong(spoiltDeployment));
  startDaemon();
  EXPECT_EQ(errorsAbout(spoiltDeployment), 3u) << _daemon->standardError();
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientType = 5}).text(), "none");
}

TEST_F(WrongTypes, OfDeviceAnswersArePassedOverAndNamed) {
  _root.write(device,
              writeXMLPropertyList(Dictionary{{"DeviceName", "Robin"}, {"ProductType", 5}}));
  EXPECT_TRUE(checkFindsWrong(device));
  startDaemon();
  publish("lumen", storebagPostingTo(urlOf("events")));
  expectReports();
  EXPECT_EQ(errorsAbout(device), 1u) << _daemon->standardError();
  EXPECT_EQ(*stringAt(records().back(), "_productFamily"), "Robin");
}

TEST_F(WrongTypes, OfPreferencesCountAsAbsent) {
  _root.write(preferences, writeXMLPropertyList(Dictionary{{"corvid_storebag_url", 5},
                                                           {"environmentType", Array{1}},
                                                           {"httpsPostURL", Dictionary{}},
                                                           {"httpsRealtimePostURL", true},
                                                           {"forceEventLogging", "maybe"},
                                                           {"identifierRespectingConsent", 7}}));
  publish("lumen", storebagPostingTo(urlOf("events")));
  startDaemon();
  expectReports();
}

// The daemon's own folder, and the folder of its message log.
TEST_F(WrongTypes, AFileInThePlaceOfAFolderCostsWhatWouldStandThere) {
  publish("lumen", storebagPostingTo(urlOf("events"), admitsEverybody()));
  _root.remove("var/lib/corvidd/Preferences");
  _root.write("var/lib/corvidd/Preferences", "no folder");
  _root.write("var/lib/corvidd/Library/Logs/Faultline/Retired", "no folder");
  EXPECT_TRUE(checkFindsWrong("var/lib/corvidd/Preferences"));
  startDaemon();
  expectReports();
  const std::size_t errors = errorsAbout("var/lib/corvidd/Preferences");
  EXPECT_GE(errors, 1u);
  expectReports();
  EXPECT_EQ(errorsAbout("var/lib/corvidd/Preferences"), errors) << _daemon->standardError();
}

}  // namespace
}  // namespace corvid
