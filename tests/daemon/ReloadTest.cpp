#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "daemon/Reload.h"
#include "platform/data/PropertyList.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ReloadTest : public testing::Test {
 protected:
  ReloadTest() { deploy({{"ProductionStorebagHost", "bags.example:8443"}}); }

  void deploy(const Dictionary& deployment) {
    root.write("etc/corvid/deployment.plist", writeXMLPropertyList(deployment));
  }
  void run() {
    log.clear();
    Reload(paths, atStart,
           {.putInForce = [this](Deployment deployment) { inForce = std::move(deployment); },
            .readDeviceAnswers = [this] { return deviceFailure; },
            .forgetPauses = [this] { ++timesForgotten; }})
        .run();
  }
  // The error line about the deployment, from its end.
  std::string fault() const {
    const std::string before = "reload: " + paths.deploymentFile + ": ";
    const std::string behind = "; keeping what was in force";
    for (const std::string& line : log.texts(LogLevel::error))
      if (line.starts_with(before) && line.ends_with(behind))
        return line.substr(before.size(), line.size() - before.size() - behind.size());
    return "none";
  }

  CapturedLog log;
  ScratchRoot root;
  const Paths paths{root.path()};
  std::optional<Deployment> atStart = Deployment();
  std::optional<Deployment> inForce;
  std::optional<Failure> deviceFailure;
  int timesForgotten = 0;
};

TEST_F(ReloadTest, ASoundDeploymentIsPutInForceAndSaid) {
  run();
  ASSERT_TRUE(inForce);
  EXPECT_EQ(inForce->productionStorebagHost, "bags.example:8443");
  EXPECT_TRUE(log.has(LogLevel::info, "reload: " + paths.deploymentFile + ": read anew"));
  EXPECT_EQ(fault(), "none");
}

TEST_F(ReloadTest, WithoutADeploymentTheDefaultsHold) {
  root.remove("etc/corvid/deployment.plist");
  run();
  ASSERT_TRUE(inForce);
  EXPECT_EQ(inForce->productionStorebagHost, Deployment().productionStorebagHost);
}

TEST_F(ReloadTest, AWrongDeploymentLeavesWhatWasInForceAndIsOneErrorLine) {
  root.write("etc/corvid/deployment.plist", "no list");
  run();
  EXPECT_FALSE(inForce);
  EXPECT_NE(fault(), "none");
  EXPECT_THAT(fault(), testing::Not(HasSubstr(root.path()))) << "the file is named once";

  deploy({{"ProductionStorebagHost", "https://bags.example/"}, {"ConsentIsLife", true}});
  run();
  EXPECT_FALSE(inForce);
  EXPECT_THAT(fault(), HasSubstr("ProductionStorebagHost takes a host"));
  EXPECT_THAT(fault(), HasSubstr("ConsentIsLife is nothing that corvidd reads"));
}

TEST_F(ReloadTest, ACAFileWithoutCertificatesIsNotTaken) {
  for (const std::string& file : {root.path("none.pem"), root.write("empty.pem", "nothing")}) {
    deploy({{"CAFile", file}});
    run();
    EXPECT_FALSE(inForce);
    EXPECT_THAT(fault(), HasSubstr("CAFile cannot be used: " + file));
  }
  deploy({{"CAFile", root.write("ca.pem", "-----BEGIN CERTIFICATE-----")}});
  run();
  EXPECT_TRUE(inForce);
}

TEST_F(ReloadTest, PortsThatTheSandboxHasClosedNeedARestart) {
  deploy({{"TCPPorts", Array{8080, 9090}}});
  atStart->tcpPorts = {8080};
  run();
  EXPECT_FALSE(inForce);
  EXPECT_THAT(fault(), HasSubstr("TCP ports that were closed at the start"));

  deploy({{"ProductionStorebagHost", "bags.example:8443"}, {"TCPPorts", Array{8080}}});
  run();
  EXPECT_FALSE(inForce) << "the host's port was closed too";
  deploy({});
  run();
  EXPECT_FALSE(inForce) << "no list is every port";

  deploy({{"TCPPorts", Array{8080}}});
  run();
  EXPECT_TRUE(inForce);
  inForce.reset();
  atStart.reset();
  deploy({{"TCPPorts", Array{8080, 9090}}});
  run();
  EXPECT_TRUE(inForce) << "without a sandbox nothing is closed";
}

TEST_F(ReloadTest, DamagedDeviceAnswersAndKeysAreSaid) {
  deviceFailure = Failure{paths.deviceFile + ": not a dictionary"};
  root.write("usr/share/corvid/publicKey.der", "no key");
  run();
  EXPECT_THAT(
      log.texts(LogLevel::error),
      ElementsAre("reload: " + paths.deviceFile + ": not a dictionary; keeping what was in force",
                  "reload: " + paths.publicKeyFile +
                      ": no public key in DER form; keeping what was in force"));
  EXPECT_TRUE(inForce) << "each file stands for itself";
}

TEST_F(ReloadTest, PausesAreForgottenWhateverTheFilesSay) {
  run();
  root.write("etc/corvid/deployment.plist", "no list");
  run();
  EXPECT_EQ(timesForgotten, 2);
}

TEST_F(ReloadTest, AfterItsEndItDoesNothing) {
  Reload reload(paths, atStart,
                {.putInForce = [this](Deployment deployment) { inForce = std::move(deployment); },
                 .readDeviceAnswers = [] { return std::nullopt; },
                 .forgetPauses = [this] { ++timesForgotten; }});
  reload.end();
  reload.run();
  EXPECT_FALSE(inForce);
  EXPECT_EQ(timesForgotten, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace corvid
