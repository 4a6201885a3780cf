#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <filesystem>

#include "platform/system/SystemDeviceInformation.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

// A machine below a scratch folder.
class DeviceInformationTest : public testing::Test {
 protected:
  std::optional<std::string> answer(std::string_view key) { return information().answer(key); }
  SystemDeviceInformation information() {
    return SystemDeviceInformation(deviceFile, machine.path());
  }
  void writeDeviceFile(std::string_view entries) {
    machine.write("device.plist",
                  "<plist version=\"1.0\"><dict>" + std::string(entries) + "</dict></plist>");
  }
  void writeDMI(const std::string& name, std::string_view text) {
    machine.write("sys/class/dmi/id/" + name, std::string(text) + "\n");
  }
  void writeDeviceTree(const std::string& name, std::string_view text) {
    machine.write("sys/firmware/devicetree/base/" + name, text);
  }

  CapturedLog log;
  ScratchFolder machine;
  const std::string deviceFile = machine.path() + "/device.plist";
};

TEST_F(DeviceInformationTest, DeviceFileAnswersBeforeTheMachine) {
  writeDMI("product_name", "Board 7");
  EXPECT_EQ(answer("ProductType"), "Board 7");
  writeDeviceFile("<key>ProductType</key><string>Robin5,2</string>");
  EXPECT_EQ(answer("ProductType"), "Robin5,2");
}

TEST_F(DeviceInformationTest, EmptyTextInTheDeviceFileMeansNoAnswer) {
  writeDMI("product_name", "Board 7");
  writeDeviceFile("<key>ProductType</key><string></string>");
  EXPECT_EQ(answer("ProductType"), std::nullopt);
}

TEST_F(DeviceInformationTest, OtherTypeInTheDeviceFileIsAsIfItWereNotThere) {
  writeDMI("product_name", "Board 7");
  writeDeviceFile("<key>ProductType</key><integer>5</integer>");
  EXPECT_EQ(answer("ProductType"), "Board 7");
  EXPECT_EQ(log.texts(LogLevel::error),
            std::vector<std::string>{"deviceInformation: " + deviceFile +
                                     ": \"ProductType\" is no text and is passed over"});
}

TEST_F(DeviceInformationTest, ChangedDeviceFileIsReadAgain) {
  SystemDeviceInformation device = information();
  EXPECT_EQ(device.answer("ReleaseType"), std::nullopt);
  writeDeviceFile("<key>ReleaseType</key><string>Internal</string>");
  EXPECT_EQ(device.answer("ReleaseType"), "Internal");
  writeDeviceFile("<key>ReleaseType</key><string>Seed</string>");
  EXPECT_EQ(device.answer("ReleaseType"), "Seed");
  std::filesystem::remove(deviceFile);
  EXPECT_EQ(device.answer("ReleaseType"), std::nullopt);
}

TEST_F(DeviceInformationTest, DamagedDeviceFileIsLoggedOnceAndCountsAsMissing) {
  writeDMI("product_name", "Board 7");
  machine.write("device.plist", "<plist><dict><key>ProductType");
  SystemDeviceInformation device = information();
  EXPECT_EQ(device.answer("ProductType"), "Board 7");
  EXPECT_EQ(device.answer("ReleaseType"), std::nullopt);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].first, LogLevel::error);
  EXPECT_TRUE(log.lines()[0].second.starts_with("deviceInformation: " + deviceFile + ": "));
  EXPECT_TRUE(log.lines()[0].second.ends_with("; going on without it"));
}

TEST_F(DeviceInformationTest, DeviceFileThatIsNoDictionaryIsDamaged) {
  machine.write("device.plist", "<plist><array/></plist>");
  EXPECT_EQ(answer("ReleaseType"), std::nullopt);
  EXPECT_TRUE(log.has(LogLevel::error, "deviceInformation: " + deviceFile +
                                           ": not a dictionary; going on without it"));
}

TEST_F(DeviceInformationTest, DamageOfAFormerDeviceFileDoesNotLast) {
  SystemDeviceInformation device = information();
  machine.write("device.plist", "damage");
  EXPECT_EQ(device.answer("ReleaseType"), std::nullopt);
  writeDeviceFile("<key>ReleaseType</key><string>Internal</string>");
  EXPECT_EQ(device.answer("ReleaseType"), "Internal");
}

TEST_F(DeviceInformationTest, VersionIsThatOfTheSystemRelease) {
  machine.write("usr/lib/os-release", "VERSION_ID=\"11\"\n");
  EXPECT_EQ(answer("ProductVersion"), "11");
  machine.write("etc/os-release", "VERSION_ID=\"12\"\n");
  EXPECT_EQ(answer("ProductVersion"), "12");
}

TEST_F(DeviceInformationTest, BuildIsThatOfTheSystemReleaseOrTheKernels) {
  utsname kernel{};
  ASSERT_EQ(uname(&kernel), 0);
  EXPECT_EQ(answer("BuildVersion"), kernel.release);
  machine.write("etc/os-release", "BUILD_ID=22A5316f\n");
  EXPECT_EQ(answer("BuildVersion"), "22A5316f");
}

TEST_F(DeviceInformationTest, HardwareIsDescribedByDMI) {
  writeDMI("product_name", "Board 7");
  writeDMI("board_name", "B7-X");
  writeDMI("product_serial", "S/N 42  ");
  EXPECT_EQ(answer("ProductType"), "Board 7");
  EXPECT_EQ(answer("HWModelStr"), "B7-X");
  EXPECT_EQ(answer("SerialNumber"), "S/N 42");
}

TEST_F(DeviceInformationTest, HardwareIsDescribedByTheDeviceTreeWithoutDMI) {
  using namespace std::string_literals;
  writeDeviceTree("compatible", "acme,board-7\0acme,soc\0"s);
  writeDeviceTree("model", "Acme Board 7\0"s);
  writeDeviceTree("serial-number", "0042\0"s);
  writeDeviceTree("chassis-type", "handset\0"s);
  EXPECT_EQ(answer("ProductType"), "acme,board-7");
  EXPECT_EQ(answer("HWModelStr"), "Acme Board 7");
  EXPECT_EQ(answer("SerialNumber"), "0042");
  EXPECT_EQ(answer("DeviceName"), "handset");
}

TEST_F(DeviceInformationTest, FieldThatTheMakerDidNotFillIsNoAnswer) {
  for (const char* filler : {"To Be Filled By O.E.M.", "to be filled by o.e.m.", "Default string",
                             "System Product Name", "Not Specified", " ", ""}) {
    writeDMI("product_name", filler);
    EXPECT_EQ(answer("ProductType"), std::nullopt) << filler;
  }
}

TEST_F(DeviceInformationTest, DeviceNameIsTheChassis) {
  const std::pair<const char*, const char*> names[] = {
      {"3", "desktop"}, {"10", "laptop"},      {"11", "handset"}, {"17", "server"},
      {"30", "tablet"}, {"31", "convertible"}, {"34", "embedded"}};
  for (const auto& [type, name] : names) {
    writeDMI("chassis_type", type);
    EXPECT_EQ(answer("DeviceName"), name) << type;
  }
  writeDMI("chassis_type", "1");
  EXPECT_EQ(answer("DeviceName"), std::nullopt);
  machine.write("etc/machine-info", "PRETTY_HOSTNAME=x\nCHASSIS=watch\n");
  EXPECT_EQ(answer("DeviceName"), "watch");
}

TEST_F(DeviceInformationTest, UniqueIdentifierIsAKeyedHashOfTheMachineID) {
  machine.write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
  // printf '61d20c7e935b4f1aa8463de057b912cf' | xxd -r -p |
  //   openssl dgst -sha256 -mac HMAC -macopt hexkey:0123456789abcdef0123456789abcdef
  EXPECT_EQ(answer("UniqueDeviceID"), "7d3fe8d2d5dfb3875a1caa3ed4bf9bcbc5948e88");
  machine.write("etc/machine-id", "0123456789abcdef0123456789abcdee\n");
  EXPECT_NE(answer("UniqueDeviceID"), "7d3fe8d2d5dfb3875a1caa3ed4bf9bcbc5948e88");
}

TEST_F(DeviceInformationTest, UniqueIdentifierNeedsAMachineID) {
  EXPECT_EQ(answer("UniqueDeviceID"), std::nullopt);
  for (const char* id : {"", "uninitialized", "0123", "0123456789abcdef0123456789abcdeg",
                         "0123456789abcdef0123456789abcdef0"}) {
    machine.write("etc/machine-id", id);
    EXPECT_EQ(answer("UniqueDeviceID"), std::nullopt) << id;
  }
}

TEST_F(DeviceInformationTest, ReleaseTypeAndUnknownKeysComeFromTheDeviceFileOnly) {
  machine.write("etc/os-release", "ReleaseType=Internal\nColour=red\n");
  EXPECT_EQ(answer("ReleaseType"), std::nullopt);
  EXPECT_EQ(answer("Colour"), std::nullopt);
  writeDeviceFile("<key>Colour</key><string>blue</string>");
  EXPECT_EQ(answer("Colour"), "blue");
}

TEST_F(DeviceInformationTest, MachineIsAskedOnce) {
  writeDMI("product_name", "Board 7");
  SystemDeviceInformation device = information();
  EXPECT_EQ(device.answer("ProductType"), "Board 7");
  writeDMI("product_name", "Board 8");
  EXPECT_EQ(device.answer("ProductType"), "Board 7");
}

}  // namespace
}  // namespace corvid
