#include <gtest/gtest.h>

#include <cerrno>

#include "platform/data/Deployment.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

class DeploymentTest : public testing::Test {
 protected:
  Deployment read(const Dictionary& settings) {
    const auto deployment =
        readDeployment(scratch.write("deployment.plist", writeXMLPropertyList(settings)));
    EXPECT_TRUE(deployment);
    return deployment ? deployment.value() : Deployment();
  }
  std::string failureOf(std::string_view content) {
    const auto deployment = readDeployment(scratch.write("deployment.plist", content));
    EXPECT_FALSE(deployment);
    return deployment ? "" : deployment.failure().message;
  }
  static std::vector<std::string> keysOf(const std::vector<SettingFault>& faults) {
    std::vector<std::string> keys;
    for (const SettingFault& fault : faults) keys.push_back(fault.key);
    return keys;
  }
  static void expectDefaults(const Deployment& deployment) {
    EXPECT_EQ(deployment.productionStorebagHost, Deployment().productionStorebagHost);
    EXPECT_EQ(deployment.internalStorebagHost, Deployment().internalStorebagHost);
    EXPECT_EQ(deployment.caFile, std::nullopt);
    EXPECT_FALSE(deployment.allowInsecureHTTP);
    EXPECT_FALSE(deployment.consentIsLive);
    EXPECT_TRUE(deployment.messageLog);
    EXPECT_FALSE(deployment.keepStorebags);
    EXPECT_FALSE(deployment.requireSHA256Signature);
    EXPECT_FALSE(deployment.refuseOlderStorebags);
    EXPECT_EQ(deployment.refreshJitter, 0);
  }

  ScratchFolder scratch;
};

TEST_F(DeploymentTest, EverySettingIsRead) {
  const Deployment deployment = read({{"ProductionStorebagHost", "bags.example:8443"},
                                      {"InternalStorebagHost", "internal.example"},
                                      {"CAFile", "/etc/ca.pem"},
                                      {"AllowInsecureHTTP", true},
                                      {"ConsentIsLive", true},
                                      {"MessageLog", false},
                                      {"KeepStorebags", true},
                                      {"RequireSHA256Signature", true},
                                      {"RefuseOlderStorebags", true},
                                      {"RefreshJitter", 0.25}});
  EXPECT_EQ(deployment.productionStorebagHost, "bags.example:8443");
  EXPECT_EQ(deployment.internalStorebagHost, "internal.example");
  EXPECT_EQ(deployment.caFile, "/etc/ca.pem");
  EXPECT_TRUE(deployment.allowInsecureHTTP);
  EXPECT_TRUE(deployment.consentIsLive);
  EXPECT_FALSE(deployment.messageLog);
  EXPECT_TRUE(deployment.keepStorebags);
  EXPECT_TRUE(deployment.requireSHA256Signature);
  EXPECT_TRUE(deployment.refuseOlderStorebags);
  EXPECT_EQ(deployment.refreshJitter, 0.25);
  EXPECT_TRUE(deployment.faults.empty());
}

TEST_F(DeploymentTest, WithoutTheKeysTheDefaultsHold) { expectDefaults(read({})); }

TEST_F(DeploymentTest, AMissingFileIsTold) {
  const auto missing = readDeployment(scratch.path() + "/missing.plist");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.failure().code, ENOENT);
}

TEST_F(DeploymentTest, SettingsOfAnotherTypeAndEmptyTextsCountAsAbsent) {
  const Deployment deployment = read({{"ProductionStorebagHost", 5},
                                      {"InternalStorebagHost", ""},
                                      {"CAFile", Array{}},
                                      {"AllowInsecureHTTP", "true"}});
  expectDefaults(deployment);
  EXPECT_EQ(keysOf(deployment.faults),
            (std::vector<std::string>{"ProductionStorebagHost", "CAFile", "AllowInsecureHTTP"}));
  expectDefaults(read({{"AllowInsecureHTTP", 1}, {"ConsentIsLive", 1}}));
}

TEST_F(DeploymentTest, AJitterOutOfRangeIsAFaultAndCountsAsNone) {
  for (const Value& wrong : {Value(0.6), Value(-0.1), Value(1), Value("0.1"), Value(true)}) {
    const Deployment deployment = read({{"RefreshJitter", wrong}});
    EXPECT_EQ(deployment.refreshJitter, 0);
    EXPECT_EQ(keysOf(deployment.faults), std::vector<std::string>{"RefreshJitter"});
  }
  EXPECT_EQ(read({{"RefreshJitter", 0.5}}).refreshJitter, 0.5);
  EXPECT_TRUE(read({{"RefreshJitter", 0}}).faults.empty()) << "a whole number will do";
}

TEST_F(DeploymentTest, PortsAreReadAndJoinedByThoseOfTheHosts) {
  EXPECT_EQ(reachableTCPPorts(read({})), std::nullopt);
  EXPECT_EQ(reachableTCPPorts(read({{"TCPPorts", Array{}}})), (std::set<std::uint16_t>{53, 443}));
  EXPECT_EQ(reachableTCPPorts(read({{"ProductionStorebagHost", "bags.example:8443"},
                                    {"InternalStorebagHost", "[::1]:9000"},
                                    {"TCPPorts", Array{8080, 65535}}})),
            (std::set<std::uint16_t>{53, 443, 8080, 8443, 9000, 65535}));
  EXPECT_EQ(reachableTCPPorts(read({{"ProductionStorebagHost", "bags.example:"},
                                    {"InternalStorebagHost", "[::1]"},
                                    {"TCPPorts", Array{1}}})),
            (std::set<std::uint16_t>{1, 53, 443}));
}

TEST_F(DeploymentTest, WhatIsNoPortOpensNone) {
  for (const Value& ports : {Value("443"), Value(true), Value(Dictionary{{"a", 5}})}) {
    const Deployment deployment = read({{"TCPPorts", ports}});
    EXPECT_EQ(deployment.tcpPorts, std::set<std::uint16_t>());
    EXPECT_EQ(keysOf(deployment.faults), std::vector<std::string>{"TCPPorts"});
  }
  const Deployment deployment = read({{"TCPPorts", Array{80, 0, -1, 65536, "81", 82.0}}});
  EXPECT_EQ(deployment.tcpPorts, std::set<std::uint16_t>{80});
  EXPECT_EQ(keysOf(deployment.faults), std::vector<std::string>{"TCPPorts"});
}

TEST_F(DeploymentTest, AnUnknownKeyIsAFaultThatNamesTheNearest) {
  const Deployment deployment = read({{"CAfile", "/etc/ca.pem"}, {"Colour", "red"}});
  expectDefaults(deployment);
  ASSERT_EQ(keysOf(deployment.faults), (std::vector<std::string>{"CAfile", "Colour"}));
  EXPECT_EQ(deployment.faults[0].what, "is nothing that corvidd reads; it reads \"CAFile\"");
  EXPECT_EQ(deployment.faults[0].text, "<key>CAfile</key>");
  EXPECT_EQ(deployment.faults[0].replacement, "<key>CAFile</key>");
  EXPECT_EQ(deployment.faults[1].what, "is nothing that corvidd reads");
  EXPECT_EQ(deployment.faults[1].text, "");
}

TEST_F(DeploymentTest, AHostWithMoreThanAHostIsAFaultThatNamesIt) {
  for (const char* host :
       {"https://bags.example:8443/bags", "bags.example:8443/bags", "https://bags.example:8443"}) {
    const Deployment deployment = read({{"ProductionStorebagHost", host}});
    EXPECT_EQ(deployment.productionStorebagHost, host) << "as it always was";
    ASSERT_EQ(keysOf(deployment.faults), std::vector<std::string>{"ProductionStorebagHost"});
    EXPECT_EQ(deployment.faults[0].replacement, "<string>bags.example:8443</string>") << host;
  }
}

TEST_F(DeploymentTest, ARelativeCAFileIsAFault) {
  EXPECT_EQ(keysOf(read({{"CAFile", "ca.pem"}}).faults), std::vector<std::string>{"CAFile"});
}

TEST_F(DeploymentTest, ADamagedFileIsAFailureThatSaysWhatAndWhere) {
  const std::string path = scratch.path() + "/deployment.plist";
  EXPECT_EQ(failureOf("<dict>\n<key>CAFile</key>\n</dict>"),
            path + ": A key without a value at line 3");
  EXPECT_EQ(failureOf(""), path + ": The property list is empty");
  EXPECT_EQ(failureOf("<array/>"), path + ": not a dictionary");
}

TEST_F(DeploymentTest, WhatCannotBeReadIsAFailureToo) {
  const auto folder = readDeployment(scratch.path());
  ASSERT_FALSE(folder);
  EXPECT_EQ(folder.failure().message, scratch.path() + ": Is a directory");
}

}  // namespace
}  // namespace corvid
