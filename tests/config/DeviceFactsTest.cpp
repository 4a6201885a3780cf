#include <gtest/gtest.h>

#include "base/Reading.h"
#include "config/DeviceFacts.h"
#include "config/DeviceInformation.h"
#include "config/Environment.h"
#include "platform/data/JSON.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

struct DeviceFacts : testing::Test {
  // The entry as JSON.
  static std::string fact(std::string_view name) {
    const Dictionary facts = deviceFacts();
    const Dictionary* entry = dictionaryAt(facts, name);
    return entry ? writeJSON(*entry).value_or("no JSON") : "missing";
  }
  void prefer(Value environment) {
    platform.preferences->setValue(corvidSuite, "environmentType", std::move(environment));
  }
  TestPlatform platform;
};

TEST_F(DeviceFacts, AreTheAnswersWithTheirSources) {
  platform.clock->advance(std::chrono::seconds(5));
  EXPECT_EQ(fact("country"), R"({"value":"US","source":"LANG"})");
  EXPECT_EQ(fact("productFamily"), R"({"value":"Robin","source":"device.plist"})");
  EXPECT_EQ(fact("hardwareType"), R"({"value":"Robin5,2","source":"device.plist"})");
  EXPECT_EQ(fact("productVersion"), R"({"value":"12.3","source":"device.plist"})");
  EXPECT_EQ(fact("buildVersion"), R"({"value":"20F71","source":"device.plist"})");
  EXPECT_EQ(fact("internal"), R"({"value":false,"source":"default"})");
  EXPECT_EQ(fact("environment"), R"({"value":"release","source":"default"})");
  EXPECT_EQ(fact("consent"), R"({"value":true,"source":"preference"})");
  EXPECT_EQ(fact("timeZoneOffset"), R"({"value":3600,"source":"TZ"})");
  EXPECT_EQ(platform.locale->askedFor, platform.clock->now().seconds);
  EXPECT_EQ(deviceFacts().size(), 9u);
}

TEST_F(DeviceFacts, AreNullWhereNothingAnswers) {
  platform.locale->country.reset();
  for (const std::string key : {"DeviceName", "ProductType", "ProductVersion", "BuildVersion"})
    platform.device->remove(key);
  prefer(0);  // no environment
  for (const char* name : {"country", "productFamily", "hardwareType", "productVersion",
                           "buildVersion", "environment"})
    EXPECT_EQ(fact(name), R"({"value":null,"source":null})") << name;
}

TEST_F(DeviceFacts, NameWhatMakesTheBuildInternal) {
  platform.device->set("ReleaseType", "Internal");
  EXPECT_EQ(fact("internal"), R"({"value":true,"source":"device.plist"})");
  EXPECT_EQ(fact("environment"), R"({"value":"halcyon_internal","source":"device.plist"})");
  platform.device->set("ReleaseType", "Customer");
  EXPECT_EQ(fact("internal"), R"({"value":false,"source":"device.plist"})");
}

TEST_F(DeviceFacts, TellThePreferredEnvironment) {
  prefer(1);
  EXPECT_EQ(fact("environment"), R"({"value":"development","source":"preference"})");
  prefer(9);
  EXPECT_EQ(fact("environment"), R"({"value":"halcyon_internal","source":"preference"})");
}

TEST_F(DeviceFacts, SettleAndLogNothing) {
  EXPECT_EQ(fact("environment"), R"({"value":"release","source":"default"})");
  EXPECT_TRUE(platform.log.lines().empty());
  platform.device->set("ReleaseType", "Internal");
  prefer(3);
  EXPECT_EQ(currentEnvironment(), CorvidEnvironmentType::seed);
  EXPECT_TRUE(isInternalBuild());
}

TEST_F(DeviceFacts, AreThoseThatTheProcessHasSettled) {
  EXPECT_FALSE(isInternalBuild());
  EXPECT_EQ(currentEnvironment(), CorvidEnvironmentType::release);
  platform.device->set("ReleaseType", "Internal");
  prefer(3);
  EXPECT_EQ(fact("internal"), R"({"value":false,"source":"default"})");
  EXPECT_EQ(fact("environment"), R"({"value":"release","source":"default"})");
}

}  // namespace
}  // namespace corvid
