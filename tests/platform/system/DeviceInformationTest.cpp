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
  std::optional<std::string> answer(std::string_view key) {
    return information().answer(key).value;
  }
  DeviceAnswer sourced(std::string_view key) { return information().answer(key); }
  SystemDeviceInformation information() {
    return SystemDeviceInformation(deviceFile, machine.path(), machine.path() + "/etc/machine-id");
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

TEST_F(DeviceInformationTest, EmptyTextInTheDeviceFileEndsTheSearch) {
  writeDMI("product_name", "Board 7");
  writeDeviceFile("<key>ProductType</key><string></string><key>DeviceName</key><string></string>");
  EXPECT_EQ(sourced("ProductType"), DeviceAnswer{});
  EXPECT_EQ(sourced("DeviceName"), DeviceAnswer{});
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
  EXPECT_EQ(device.answer("ReleaseType").value, std::nullopt);
  writeDeviceFile("<key>ReleaseType</key><string>Internal</string>");
  EXPECT_EQ(device.answer("ReleaseType").value, "Internal");
  writeDeviceFile("<key>ReleaseType</key><string>Seed</string>");
  EXPECT_EQ(device.answer("ReleaseType").value, "Seed");
  std::filesystem::remove(deviceFile);
  EXPECT_EQ(device.answer("ReleaseType").value, std::nullopt);
}

TEST_F(DeviceInformationTest, DamagedDeviceFileIsLoggedOnceAndCountsAsMissing) {
  writeDMI("product_name", "Board 7");
  machine.write("device.plist", "<plist><dict><key>ProductType");
  SystemDeviceInformation device = information();
  EXPECT_EQ(device.answer("ProductType").value, "Board 7");
  EXPECT_EQ(device.answer("ReleaseType").value, std::nullopt);
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

TEST_F(DeviceInformationTest, DamagedDeviceFileLeavesTheLastGoodAnswersAndIsSaidOnce) {
  writeDeviceFile("<key>ReleaseType</key><string>Internal</string>");
  SystemDeviceInformation device = information();
  ASSERT_EQ(device.answer("ReleaseType").value, "Internal");
  machine.write("device.plist", "<plist><dict><key>ReleaseType");
  EXPECT_EQ(device.answer("ReleaseType").value, "Internal");
  EXPECT_EQ(device.answer("ReleaseType").value, "Internal");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].first, LogLevel::error);
  EXPECT_TRUE(log.lines()[0].second.starts_with("deviceInformation: " + deviceFile + ": "));
  EXPECT_TRUE(log.lines()[0].second.ends_with("; keeping what was in force"));
  std::filesystem::remove(deviceFile);
  EXPECT_EQ(device.answer("ReleaseType").value, std::nullopt);
}

TEST_F(DeviceInformationTest, AReloadGivesTheDamageBackAndLogsNothing) {
  writeDeviceFile("<key>ReleaseType</key><string>Internal</string>");
  SystemDeviceInformation device = information();
  EXPECT_FALSE(device.reload());
  machine.write("device.plist", "<plist><array/></plist>");
  for (int times = 0; times < 2; ++times) {
    const auto failure = device.reload();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->message, deviceFile + ": not a dictionary");
    EXPECT_EQ(device.answer("ReleaseType").value, "Internal");
  }
  std::filesystem::remove(deviceFile);
  EXPECT_FALSE(device.reload());
  EXPECT_EQ(device.answer("ReleaseType").value, std::nullopt);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(DeviceInformationTest, AReloadSaysNothingAgainOfWhatHasNotChanged) {
  writeDeviceFile("<key>ReleaseType</key><integer>5</integer>");
  SystemDeviceInformation device = information();
  EXPECT_EQ(device.answer("ReleaseType").value, std::nullopt);
  EXPECT_FALSE(device.reload());
  EXPECT_EQ(log.texts(LogLevel::error).size(), 1u);
}

TEST_F(DeviceInformationTest, DamageOfAFormerDeviceFileDoesNotLast) {
  SystemDeviceInformation device = information();
  machine.write("device.plist", "damage");
  EXPECT_EQ(device.answer("ReleaseType").value, std::nullopt);
  writeDeviceFile("<key>ReleaseType</key><string>Internal</string>");
  EXPECT_EQ(device.answer("ReleaseType").value, "Internal");
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
  EXPECT_EQ(answer("ProductType"), "acme,board-7");
  EXPECT_EQ(answer("HWModelStr"), "Acme Board 7");
  EXPECT_EQ(answer("SerialNumber"), "0042");
  EXPECT_EQ(answer("DeviceName"), "Acme Board 7");
}

TEST_F(DeviceInformationTest, FieldThatTheMakerDidNotFillIsNoAnswer) {
  for (const char* filler : {"To Be Filled By O.E.M.", "to be filled by o.e.m.", "Default string",
                             "System Product Name", "Not Specified", " ", ""}) {
    for (const char* field : {"product_family", "product_name", "board_name"})
      writeDMI(field, filler);
    writeDeviceTree("model", filler);
    machine.write("etc/machine-info", std::string("HARDWARE_MODEL=\"") + filler + "\"\n");
    EXPECT_EQ(sourced("DeviceName").source, "architecture") << filler;
    EXPECT_EQ(sourced("ProductType").source, "architecture") << filler;
    EXPECT_EQ(sourced("HWModelStr"), DeviceAnswer{}) << filler;
  }
}

TEST_F(DeviceInformationTest, DeviceNameIsTheFamilyAndProductTypeTheProduct) {
  machine.write("etc/machine-info", "HARDWARE_MODEL=\"Acme Slate\"\nCHASSIS=tablet\n");
  EXPECT_EQ(sourced("DeviceName"), (DeviceAnswer{"Acme Slate", "machine-info"}));
  EXPECT_EQ(sourced("ProductType"), (DeviceAnswer{"Acme Slate", "machine-info"}));
  writeDeviceTree("model", "Acme Board 7");
  writeDeviceTree("compatible", "acme,board-7");
  EXPECT_EQ(sourced("DeviceName"), (DeviceAnswer{"Acme Board 7", "device tree"}));
  EXPECT_EQ(sourced("ProductType"), (DeviceAnswer{"acme,board-7", "device tree"}));
  writeDMI("product_family", "Slates");
  writeDMI("product_name", "Slate 7");
  EXPECT_EQ(sourced("DeviceName"), (DeviceAnswer{"Slates", "DMI"}));
  EXPECT_EQ(sourced("ProductType"), (DeviceAnswer{"Slate 7", "DMI"}));
  writeDeviceFile("<key>DeviceName</key><string>Robin</string>");
  EXPECT_EQ(sourced("DeviceName"), (DeviceAnswer{"Robin", "device.plist"}));
}

TEST_F(DeviceInformationTest, WithoutFirmwareTheArchitectureAndSystemAnswer) {
  utsname kernel{};
  ASSERT_EQ(uname(&kernel), 0);
  const std::string architecture = kernel.machine;
  EXPECT_EQ(sourced("DeviceName"), (DeviceAnswer{architecture + " Linux", "architecture"}));
  EXPECT_EQ(sourced("ProductType"), (DeviceAnswer{architecture + " Linux", "architecture"}));
  machine.write("etc/os-release", "NAME=\"Birch OS\"\nID=birch\n");
  EXPECT_EQ(sourced("DeviceName"), (DeviceAnswer{architecture + " Birch OS", "architecture"}));
  EXPECT_EQ(sourced("ProductType"), (DeviceAnswer{architecture + " Birch OS", "architecture"}));
}

TEST_F(DeviceInformationTest, WithoutAFamilyTheChassisNamesTheDevice) {
  machine.write("etc/os-release", "NAME=\"Birch OS\"\n");
  const std::pair<const char*, const char*> names[] = {
      {"3", "desktop"}, {"10", "laptop"},      {"11", "handset"}, {"17", "server"},
      {"30", "tablet"}, {"31", "convertible"}, {"34", "embedded"}};
  for (const auto& [type, name] : names) {
    writeDMI("chassis_type", type);
    EXPECT_EQ(sourced("DeviceName"), (DeviceAnswer{std::string(name) + " Birch OS", "chassis"}));
    EXPECT_EQ(sourced("ProductType").source, "architecture");
  }
  writeDMI("chassis_type", "1");
  EXPECT_EQ(sourced("DeviceName").source, "architecture");
  writeDeviceTree("chassis-type", "handset");
  EXPECT_EQ(answer("DeviceName"), "handset Birch OS");
  machine.write("etc/machine-info", "PRETTY_HOSTNAME=x\nCHASSIS=watch\n");
  EXPECT_EQ(answer("DeviceName"), "watch Birch OS");
}

TEST_F(DeviceInformationTest, EachAnswerNamesItsSource) {
  EXPECT_EQ(sourced("ProductVersion"), DeviceAnswer{});
  EXPECT_EQ(sourced("BuildVersion").source, "system");
  machine.write("etc/os-release", "VERSION_ID=12\nBUILD_ID=7\n");
  writeDMI("board_name", "B7-X");
  writeDeviceTree("serial-number", "0042");
  EXPECT_EQ(sourced("ProductVersion"), (DeviceAnswer{"12", "os-release"}));
  EXPECT_EQ(sourced("BuildVersion"), (DeviceAnswer{"7", "os-release"}));
  EXPECT_EQ(sourced("HWModelStr"), (DeviceAnswer{"B7-X", "DMI"}));
  EXPECT_EQ(sourced("SerialNumber"), (DeviceAnswer{"0042", "device tree"}));
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
  EXPECT_EQ(device.answer("ProductType").value, "Board 7");
  writeDMI("product_name", "Board 8");
  EXPECT_EQ(device.answer("ProductType").value, "Board 7");
}

}  // namespace
}  // namespace corvid
