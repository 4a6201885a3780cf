#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

#include "config/DeviceInformation.h"
#include "platform/data/PropertyList.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

struct DeviceInformation : testing::Test {
  TestPlatform platform;
  const Paths paths{"/nonexistent/root"};
};

TEST_F(DeviceInformation, EachAnswerHasItsKey) {
  EXPECT_EQ(productVersion(), "12.3");
  EXPECT_EQ(buildVersion(), "20F71");
  EXPECT_EQ(productType(), "Robin5,2");
  EXPECT_EQ(deviceName(), "Robin");
  EXPECT_EQ(hardwareModel(), "R52AP");
  EXPECT_EQ(serialNumber(), "C0RV1D000001");
}

TEST_F(DeviceInformation, WhatTheDeviceDoesNotKnowIsAbsent) {
  for (const std::string key : {"ProductVersion", "BuildVersion", "ProductType", "DeviceName",
                                "HWModelStr", "SerialNumber"})
    platform.device->remove(key);
  EXPECT_EQ(productVersion(), std::nullopt);
  EXPECT_EQ(buildVersion(), std::nullopt);
  EXPECT_EQ(productType(), std::nullopt);
  EXPECT_EQ(deviceName(), std::nullopt);
  EXPECT_EQ(hardwareModel(), std::nullopt);
  EXPECT_EQ(serialNumber(), std::nullopt);
}

TEST_F(DeviceInformation, AnswersAreAskedAnewAtEveryCall) {
  EXPECT_EQ(productVersion(), "12.3");
  platform.device->set("ProductVersion", "12.4");
  EXPECT_EQ(productVersion(), "12.4");
  EXPECT_EQ(platform.device->timesAsked("ProductVersion"), 2);
}

TEST_F(DeviceInformation, TheIdentifierIsAnAnswerOfAtMost40Bytes) {
  EXPECT_EQ(uniqueDeviceID(), "0123456789abcdef0123456789abcdef01234567");
  platform.device->set("UniqueDeviceID", "short");
  EXPECT_EQ(uniqueDeviceID(), "short");
  platform.device->set("UniqueDeviceID", "0123456789abcdef0123456789abcdef012345678");
  EXPECT_EQ(uniqueDeviceID(), "");
  platform.device->remove("UniqueDeviceID");
  EXPECT_EQ(uniqueDeviceID(), "");
}

TEST_F(DeviceInformation, OnlyTheReleaseTypeInternalIsInternal) {
  EXPECT_FALSE(isInternalBuild());
  const std::vector<std::pair<std::string, bool>> table{{"Internal", true},  {"internal", false},
                                                        {"INTERNAL", false}, {"Internal ", false},
                                                        {"", false},         {"Customer", false}};
  for (const auto& [type, internal] : table) {
    platform.device->set("ReleaseType", type);
    platform.restart();
    EXPECT_EQ(isInternalBuild(), internal) << type;
  }
}

TEST_F(DeviceInformation, TheBuildIsAskedForOncePerProcess) {
  EXPECT_FALSE(isInternalBuild());
  platform.device->set("ReleaseType", "Internal");
  EXPECT_FALSE(isInternalBuild());
  EXPECT_EQ(platform.device->timesAsked("ReleaseType"), 1);
  platform.restart();
  EXPECT_TRUE(isInternalBuild());
}

TEST_F(DeviceInformation, ThreadsThatMeetAtTheFirstQuestionAskOnce) {
  platform.device->set("ReleaseType", "Internal");
  constexpr int count = 8;
  std::barrier meeting{count};
  std::atomic<int> internal{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&] {
      meeting.arrive_and_wait();
      internal += isInternalBuild();
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(internal, count);
  EXPECT_EQ(platform.device->timesAsked("ReleaseType"), 1);
}

TEST_F(DeviceInformation, TheLibraryVersionComesFromItsInformation) {
  const Dictionary information{{"BundleVersion", "12.4"}, {"Other", 1}};
  platform.files->files[paths.infoFile] = {writeXMLPropertyList(information), {}};
  EXPECT_EQ(clientLibraryVersion(), "12.4");
  platform.files->files[paths.infoFile] = {writeBinaryPropertyList(information), {}};
  EXPECT_EQ(clientLibraryVersion(), "12.4");
}

TEST_F(DeviceInformation, TheLibraryVersionIsReadAtEachCall) {
  EXPECT_EQ(clientLibraryVersion(), "8.0");
  platform.files->files[paths.infoFile] = {
      writeXMLPropertyList(Dictionary{{"BundleVersion", "9.1"}}), {}};
  EXPECT_EQ(clientLibraryVersion(), "9.1");
}

TEST_F(DeviceInformation, WithoutUsableInformationTheLibraryVersionIsEightZero) {
  const std::vector<std::string> contents{
      "",
      "garbage",
      writeXMLPropertyList(Dictionary{}),
      writeXMLPropertyList(Dictionary{{"bundleversion", "9.1"}}),
      writeXMLPropertyList(Dictionary{{"BundleVersion", 9.1}}),
      writeXMLPropertyList(Dictionary{{"BundleVersion", Array{"9.1"}}}),
      writeXMLPropertyList(Array{"BundleVersion", "9.1"}),
      std::string(1 << 20, ' ') + writeXMLPropertyList(Dictionary{{"BundleVersion", "9.1"}}),
  };
  for (const std::string& content : contents) {
    platform.files->files[paths.infoFile] = {content, {}};
    EXPECT_EQ(clientLibraryVersion(), "8.0") << content.substr(0, 300);
  }
  EXPECT_TRUE(platform.log.lines().empty());
}

}  // namespace
}  // namespace corvid
