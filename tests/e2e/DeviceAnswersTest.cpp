// What the device says about itself, in the records that leave: also of a machine that nobody has
// described.
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <string>
#include <string_view>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr std::string_view deviceFile = "etc/corvid/device.plist";

class DeviceAnswersOfTheDaemon : public LabFixture {
 protected:
  // The record of an event of a new client.
  Dictionary record() {
    TestClient client(_root.path());
    EXPECT_EQ(client.configure({.clientType = 5}).text(), "httpPost") << _daemon->standardError();
    const std::string mark = "event " + std::to_string(++_sent);
    EXPECT_EQ(client.send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << _daemon->standardError();
    for (const Dictionary& one : records())
      if (textIn(one, "mark") == mark) return one;
    return {};
  }
  static std::string textIn(const Dictionary& record, std::string_view key) {
    const std::string* text = stringAt(record, key);
    return text ? *text : "none";
  }

 private:
  int _sent = 0;
};

TEST_F(DeviceAnswersOfTheDaemon, MachineWithoutFirmwareAndDeviceFileReports) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  _root.remove(deviceFile);
  _root.write("etc/os-release", "NAME=\"Birch OS\"\nVERSION_ID=3\n");
  utsname kernel{};
  ASSERT_EQ(uname(&kernel), 0);
  startDaemon();
  const Dictionary one = record();
  EXPECT_EQ(textIn(one, "_productFamily"), std::string(kernel.machine) + " Birch OS");
  EXPECT_EQ(textIn(one, "_productModel"), std::string(kernel.machine) + " Birch OS");
  EXPECT_EQ(textIn(one, "_osVersion"), "3");
}

TEST_F(DeviceAnswersOfTheDaemon, MachinesFilesAreReadBelowTheRootInsideTheSandbox) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  _root.remove(deviceFile);
  _root.write("sys/class/dmi/id/product_family", "Slates\n");
  _root.write("sys/class/dmi/id/product_name", "Default string\n");
  _root.write("sys/firmware/devicetree/base/compatible", std::string("acme,board-7\0acme", 17));
  startDaemon();
  const Dictionary one = record();
  EXPECT_EQ(textIn(one, "_productFamily"), "Slates");
  EXPECT_EQ(textIn(one, "_productModel"), "acme,board-7");
}

TEST_F(DeviceAnswersOfTheDaemon, EmptyTextInTheDeviceFileStillMeansNoAnswer) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  _root.write(deviceFile, writeXMLPropertyList(Dictionary{{"DeviceName", ""}}));
  startDaemon();
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientType = 5}).text(), "");
}

TEST_F(DeviceAnswersOfTheDaemon, ChangedDeviceFileCountsAtOnceAndADamagedOneLeavesTheLastGood) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  startDaemon();
  EXPECT_EQ(textIn(record(), "_productFamily"), "Workbench");
  _root.write(deviceFile, writeXMLPropertyList(Dictionary{{"DeviceName", "Robin"}}));
  EXPECT_EQ(textIn(record(), "_productFamily"), "Robin");
  _root.write(deviceFile, "<plist><dict><key>half an");
  EXPECT_EQ(textIn(record(), "_productFamily"), "Robin");
  EXPECT_EQ(textIn(record(), "_productFamily"), "Robin");
  EXPECT_EQ(timesLogged("; keeping what was in force"), 1u) << _daemon->standardError();
}

}  // namespace
}  // namespace corvid
