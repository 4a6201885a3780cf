// Bundles of every kind in the real daemon, in its sandbox.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

constexpr const char* forwardingError =
    "does not respond to forwarding selector sendMessageWithMethod:respCode:dict:";

class Bundles : public LabFixture {
 protected:
  static constexpr int conferencingClient = 7;

  Bundles() {
    const Dictionary section{{"metrix", Dictionary{{"active", true}}}};
    publish("parlor", {{"version", "7"}, {"refresh_cycle", 3600}, {"release", section}});
  }
  void install(const fs::path& bundle) {
    const fs::path target = _root.path("usr/lib/corvid/PerformanceBundle.so");
    fs::create_directories(target.parent_path());
    fs::copy_file(bundle, target, fs::copy_options::overwrite_existing);
  }
  static fs::path faulty(const std::string& name) {
    return fs::path(CORVID_BUNDLES_FOLDER) / (name + ".so");
  }
  // Two events of a client whose backend is that of the adaptor. Its start and its end are events
  // as well.
  static constexpr std::size_t eventsInAll = 4;
  void sendTwo() {
    TestClient client(_root.path());
    ASSERT_EQ(client.configure({.clientType = conferencingClient}).text(), "metrix");
    EXPECT_EQ(client.send("first").text(), "none");
    EXPECT_EQ(client.send("second").text(), "none");
  }
  // Once for each event.
  void expectLogged(const char* line) {
    EXPECT_TRUE(waitUntil([&] { return timesLogged(line) == eventsInAll; }))
        << _daemon->standardError();
  }
};

TEST_F(Bundles, TheExampleGetsEachEvent) {
  install(CORVID_EXAMPLE_BUNDLE);
  startDaemon();
  sendTwo();
  EXPECT_EQ(timesLogged("example adaptor: method 7, response code 2, a payload of "), 2u);
  EXPECT_EQ(timesLogged(forwardingError), 0u);
}

TEST_F(Bundles, WithoutOneEachEventIsAnErrorLine) {
  startDaemon();
  sendTwo();
  expectLogged(forwardingError);
}

class FaultyBundles : public Bundles, public testing::WithParamInterface<const char*> {};

TEST_P(FaultyBundles, CostTheirEventsAndNothingElse) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  install(faulty(GetParam()));
  startDaemon();
  sendTwo();
  expectLogged(forwardingError);
  TestClient other(_root.path());
  ASSERT_EQ(other.configure({.clientType = 5}).text(), "httpPost");
  EXPECT_EQ(other.send("goes on").text(), "none");
  EXPECT_TRUE(waitUntil([&] { return arrivals("goes on") == 1; }));
}
INSTANTIATE_TEST_SUITE_P(All, FaultyBundles,
                         testing::Values("CrashesAtLoad", "ThrowsAtLoad", "EndsTheProcessAtLoad",
                                         "CrashesAtCreate", "MakesNothing", "LacksTheOperation",
                                         "LacksTheClass", "IsOfAnotherVersion", "NoBundle"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(Bundles, TheConfigurationCheckTriesThem) {
  const auto found = [&] {
    DaemonProcess check(_root, {"--check-config"});
    check.waitForExit();
    const std::string text = check.standardOutput();
    _root.remove("stdout");
    return text;
  };
  const std::string path = _root.path("usr/lib/corvid/PerformanceBundle.so");
  install(CORVID_EXAMPLE_BUNDLE);
  EXPECT_NE(found().find("ok    " + path + ": can be loaded\n"), std::string::npos);
  for (const char* name :
       {"CrashesAtLoad", "CrashesAtCreate", "EndsTheProcessAtLoad", "NoBundle"}) {
    install(faulty(name));
    EXPECT_NE(found().find("WRONG " + path + ": is not used: it "), std::string::npos) << name;
  }
}

TEST_F(Bundles, WhatAnAdaptorThrowsIsAnErrorLineForEachEvent) {
  install(faulty("Throws"));
  startDaemon();
  sendTwo();
  expectLogged("Bundle: sendMessageWithMethod:respCode:dict: threw: not today");
}

TEST_F(Bundles, OneThatCrashedInItsTrialIsNotUsedAndTheLogSaysWhatToDo) {
  install(faulty("CrashesAtLoad"));
  startDaemon();
  EXPECT_EQ(timesLogged("main: The bundle " + _root.path("usr/lib/corvid/PerformanceBundle.so") +
                        " is not used: it "),
            1u);
  EXPECT_EQ(timesLogged("; mend or remove it and start corvidd anew"), 1u);
}

TEST_F(Bundles, WithOneAndNoSandboxProfileTheDaemonSaysOnceThatItCannotStart) {
  install(CORVID_EXAMPLE_BUNDLE);
  fs::remove(_root.path("usr/share/corvid/sandbox/com.halcyon.corvidd.plist"));
  _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr"});
  EXPECT_EQ(_daemon->waitForExit(), 255);
  EXPECT_EQ(timesLogged(" error corvidd["), 1u) << _daemon->standardError();
  EXPECT_EQ(timesLogged("main: sandbox_init() fails: "), 1u);
}

TEST_F(Bundles, WithOneTheDaemonWarnsOnceThatTheSandboxIsOff) {
  install(CORVID_EXAMPLE_BUNDLE);
  startDaemon({"--sandbox", "off"});
  EXPECT_EQ(timesLogged(" warning corvidd["), 1u) << _daemon->standardError();
  EXPECT_EQ(timesLogged("main: The sandbox is off: "), 1u);
}

TEST_F(Bundles, OneThatIsNoLibraryIsOneErrorLineAtTheStart) {
  install(faulty("NoBundle"));
  startDaemon();
  EXPECT_EQ(timesLogged(" error corvidd["), 1u) << _daemon->standardError();
  EXPECT_EQ(timesLogged(" is not used: it could not be loaded: "), 1u);
}

TEST_F(Bundles, OneInstalledAfterTheStartIsSeenAfterTheNext) {
  startDaemon();
  install(faulty("CrashesAtLoad"));
  sendTwo();
  expectLogged(forwardingError);
  EXPECT_EQ(
      timesLogged(" is not the one that was tried at the start; start corvidd anew to use it"), 1u);
}

}  // namespace
}  // namespace corvid
