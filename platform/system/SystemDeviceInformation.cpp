#include "platform/system/SystemDeviceInformation.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

// What board makers leave in fields that they do not fill.
constexpr std::string_view fillers[] = {
    "To Be Filled By O.E.M.",
    "Default string",
    "System Product Name",
    "System Serial Number",
    "Base Board Product Name",
    "Type1Family",
    "N/A",
    "Not Specified",
    "Not Applicable",
    "None",
    "Unknown",
};

// As a text of the machine is told; nothing where it says nothing.
std::optional<std::string> meaningful(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
  const auto isFiller = [&](std::string_view filler) { return equalsIgnoringCase(filler, text); };
  if (text.empty() || std::ranges::any_of(fillers, isFiller)) return std::nullopt;
  return replacingInvalidUTF8(text);
}

// The first text in a firmware file; a device tree ends each text with a zero.
std::optional<std::string> firmwareText(const std::string& path) {
  const Result<std::string> content = readRegularFile(path);
  if (!content) return std::nullopt;
  const std::string_view text = content.value();
  return meaningful(text.substr(0, text.find('\0')));
}

DeviceAnswer sourced(std::optional<std::string> text, std::string_view source) {
  if (!text) return {};
  return {std::move(text), source};
}

// Of several sources, asked in their order, the first that answers.
template <class... Source>
DeviceAnswer firstOf(const Source&... sources) {
  DeviceAnswer answer;
  static_cast<void>(((answer = sources(), answer.value.has_value()) || ...));
  return answer;
}

// Reads the machine's own files below `root`, and its identifier.
class Machine {
 public:
  Machine(const std::string& root, const std::string& machineIDFile)
      : _root(root), _machineIDFile(machineIDFile) {}

  // The machine's own answer to a device-information key.
  DeviceAnswer answer(std::string_view key) const {
    if (key == "ProductVersion") return sourced(osRelease("VERSION_ID"), "os-release");
    if (key == "BuildVersion") return buildVersion();
    if (key == "ProductType") return productType();
    if (key == "HWModelStr") return firmware("board_name", "model");
    if (key == "SerialNumber") return firmware("product_serial", "serial-number");
    if (key == "DeviceName") return deviceName();
    if (key == "UniqueDeviceID") return sourced(uniqueDeviceID(), "system");
    return {};
  }

 private:
  DeviceAnswer buildVersion() const {
    if (auto build = osRelease("BUILD_ID")) return {std::move(build), "os-release"};
    const utsname kernel = kernelNames();
    return {kernel.release, "system"};
  }
  DeviceAnswer productType() const {
    return firstOf([&] { return firmware("product_name", "compatible"); },
                   [&] { return hardwareModel(); }, [&] { return architecture(); });
  }
  DeviceAnswer deviceName() const {
    return firstOf([&] { return firmware("product_family", "model"); },
                   [&] { return hardwareModel(); }, [&] { return chassis(); },
                   [&] { return architecture(); });
  }
  DeviceAnswer hardwareModel() const {
    return sourced(assigned("/etc/machine-info", "HARDWARE_MODEL"), "machine-info");
  }
  DeviceAnswer chassis() const;
  DeviceAnswer architecture() const {
    const utsname kernel = kernelNames();
    return {withSystemName(kernel.machine), "architecture"};
  }
  // So that one family of boards under two systems can be told apart.
  std::string withSystemName(std::string_view what) const {
    return fmt::format("{} {}", what, osRelease("NAME").value_or("Linux"));
  }
  std::optional<std::string> uniqueDeviceID() const;

  static utsname kernelNames() {
    utsname names{};
    uname(&names);
    return names;
  }
  std::optional<std::string> assigned(const std::string& path, std::string_view name) const {
    const Result<std::string> content = readRegularFile(_root + path);
    const auto value = content ? assignedValue(content.value(), name) : std::nullopt;
    return value ? meaningful(*value) : std::nullopt;
  }
  std::optional<std::string> osRelease(std::string_view name) const {
    const Result<std::string> content = readRegularFile(_root + "/etc/os-release");
    return content ? assignedValue(content.value(), name) : assigned("/usr/lib/os-release", name);
  }
  std::optional<std::string> dmi(std::string_view name) const {
    return firmwareText(fmt::format("{}/sys/class/dmi/id/{}", _root, name));
  }
  std::optional<std::string> deviceTree(std::string_view name) const {
    return firmwareText(fmt::format("{}/sys/firmware/devicetree/base/{}", _root, name));
  }
  DeviceAnswer firmware(std::string_view dmiName, std::string_view treeName) const {
    return firstOf([&] { return sourced(dmi(dmiName), "DMI"); },
                   [&] { return sourced(deviceTree(treeName), "device tree"); });
  }
  std::optional<std::string> dmiChassis() const;

  const std::string& _root;
  const std::string& _machineIDFile;
};

DeviceAnswer Machine::chassis() const {
  auto found = assigned("/etc/machine-info", "CHASSIS");
  if (!found) found = dmiChassis();
  if (!found) found = deviceTree("chassis-type");
  if (!found) return {};
  return {withSystemName(*found), "chassis"};
}

// hostnamed's words for the chassis types of the SMBIOS reference.
std::optional<std::string> Machine::dmiChassis() const {
  const auto type = dmi("chassis_type");
  if (!type) return std::nullopt;
  switch (integerFromText(*type)) {
    case 0x03:  // desktop
    case 0x04:  // low-profile desktop
    case 0x06:  // mini tower
    case 0x07:  // tower
    case 0x0d:  // all in one
    case 0x23:  // mini PC
    case 0x24:  // stick PC
      return "desktop";
    case 0x08:  // portable
    case 0x09:  // laptop
    case 0x0a:  // notebook
    case 0x0e:  // sub-notebook
      return "laptop";
    case 0x0b: return "handset";
    case 0x11:  // main server
    case 0x1c:  // blade
    case 0x1d:  // blade enclosure
      return "server";
    case 0x1e: return "tablet";
    case 0x1f:  // convertible
    case 0x20:  // detachable
      return "convertible";
    case 0x21:  // gateway
    case 0x22:  // embedded
      return "embedded";
    default: return std::nullopt;
  }
}

// The machine id is confidential, so what leaves the device is a keyed hash of this system's own
// number: others cannot compute it, nor the machine id from it.
std::optional<std::string> Machine::uniqueDeviceID() const {
  constexpr std::string_view application(
      "\x61\xd2\x0c\x7e\x93\x5b\x4f\x1a"
      "\xa8\x46\x3d\xe0\x57\xb9\x12\xcf",
      16);
  constexpr std::size_t machineIDDigits = 32;
  constexpr std::size_t identifierBytes = 20;

  const auto machineID = firmwareText(_machineIDFile);
  const auto key = machineID && machineID->size() == machineIDDigits
                       ? bytesFromHexadecimal(*machineID)
                       : std::nullopt;
  if (!key) return std::nullopt;
  const SHA256Digest identifier = hmacSHA256(*key, application);
  return hexadecimal(std::span(identifier).first(identifierBytes));
}

}  // namespace

SystemDeviceInformation::SystemDeviceInformation(std::string deviceFile, std::string machineRoot,
                                                 std::string machineIDFile)
    : _deviceFile(std::move(deviceFile)),
      _machineRoot(std::move(machineRoot)),
      _machineIDFile(std::move(machineIDFile)) {}

DeviceAnswer SystemDeviceInformation::answer(std::string_view key) {
  const MutexLock lock(_mutex);
  updateDeviceAnswers();
  if (const std::string* answer = stringAt(_deviceAnswers, key))
    return answer->empty() ? DeviceAnswer{} : DeviceAnswer{*answer, "device.plist"};
  const auto known = _machineAnswers.find(key);
  if (known != _machineAnswers.end()) return known->second;
  return _machineAnswers.emplace(key, Machine(_machineRoot, _machineIDFile).answer(key))
      .first->second;
}

Result<DeviceAnswers> readDeviceAnswers(const std::string& path) {
  Result<Dictionary> answers = readDictionaryFile(path);
  if (!answers) return answers.failure();
  DeviceAnswers read{std::move(answers).value(), {}};
  for (const auto& [key, value] : read.answers)
    if (!value.string()) read.faults.push_back({key, "is no text and is passed over"});
  constexpr std::string_view keys[] = {"ProductVersion", "BuildVersion", "ProductType",
                                       "DeviceName",     "HWModelStr",   "SerialNumber",
                                       "UniqueDeviceID", "ReleaseType"};
  for (SettingFault& fault : unknownKeys(read.answers, keys))
    read.faults.push_back(std::move(fault));
  return read;
}

std::optional<Failure> SystemDeviceInformation::reload() {
  const MutexLock lock(_mutex);
  return takeDeviceAnswers(FileStamp::of(_deviceFile));
}

void SystemDeviceInformation::updateDeviceAnswers() {
  const FileStamp stamp = FileStamp::of(_deviceFile);
  if (stamp == _deviceFileStamp) return;
  if (const auto failure = takeDeviceAnswers(stamp))
    logError("deviceInformation: {}; {}", failure->message,
             _deviceAnswers.empty() ? "going on without it" : "keeping what was in force");
}

std::optional<Failure> SystemDeviceInformation::takeDeviceAnswers(const FileStamp& stamp) {
  _deviceFileStamp = stamp;
  Result<DeviceAnswers> read = readDeviceAnswers(_deviceFile);
  if (!read && read.failure().code == ENOENT) read = DeviceAnswers{};
  if (!read) return read.failure();
  // What is wrong with it has been said.
  if (read.value().answers == _deviceAnswers) return std::nullopt;
  _deviceAnswers = std::move(read.value().answers);
  for (const SettingFault& fault : read.value().faults)
    logError("deviceInformation: {}: \"{}\" {}", _deviceFile, fault.key, fault.what);
  return std::nullopt;
}

}  // namespace corvid
