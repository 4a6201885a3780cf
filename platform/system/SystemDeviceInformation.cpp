#include "platform/system/SystemDeviceInformation.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
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
    "Not Specified",
    "Not Applicable",
    "None",
    "Unknown",
};

// The first text in a firmware file; a device tree ends each text with a zero.
std::optional<std::string> firmwareText(const std::string& path) {
  const Result<std::string> content = readRegularFile(path);
  if (!content) return std::nullopt;
  std::string_view text = content.value();
  text = text.substr(0, text.find('\0'));
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
  const auto isFiller = [&](std::string_view filler) { return equalsIgnoringCase(filler, text); };
  if (text.empty() || std::ranges::any_of(fillers, isFiller)) return std::nullopt;
  return replacingInvalidUTF8(text);
}

// Reads the machine's own files below `root`.
class Machine {
 public:
  explicit Machine(const std::string& root) : _root(root) {}

  // The machine's own answer to a device-information key.
  std::optional<std::string> answer(std::string_view key) const {
    if (key == "ProductVersion") return osRelease("VERSION_ID");
    if (key == "BuildVersion") return buildVersion();
    if (key == "ProductType") return firmware("product_name", "compatible");
    if (key == "HWModelStr") return firmware("board_name", "model");
    if (key == "SerialNumber") return firmware("product_serial", "serial-number");
    if (key == "DeviceName") return deviceName();
    if (key == "UniqueDeviceID") return uniqueDeviceID();
    return std::nullopt;
  }

 private:
  std::optional<std::string> buildVersion() const {
    if (auto build = osRelease("BUILD_ID")) return build;
    utsname kernel{};
    if (uname(&kernel) != 0) return std::nullopt;
    return kernel.release;
  }
  std::optional<std::string> deviceName() const {
    if (auto chassis = assigned("/etc/machine-info", "CHASSIS")) return chassis;
    if (auto chassis = dmiChassis()) return chassis;
    return deviceTree("chassis-type");
  }
  std::optional<std::string> uniqueDeviceID() const;

  std::optional<std::string> assigned(const std::string& path, std::string_view name) const {
    const Result<std::string> content = readRegularFile(_root + path);
    return content ? assignedValue(content.value(), name) : std::nullopt;
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
  std::optional<std::string> firmware(std::string_view dmiName, std::string_view treeName) const {
    auto text = dmi(dmiName);
    return text ? text : deviceTree(treeName);
  }
  std::optional<std::string> dmiChassis() const;

  const std::string& _root;
};

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

  const auto machineID = firmwareText(_root + "/etc/machine-id");
  const auto key = machineID && machineID->size() == machineIDDigits
                       ? bytesFromHexadecimal(*machineID)
                       : std::nullopt;
  if (!key) return std::nullopt;
  const SHA256Digest identifier = hmacSHA256(*key, application);
  return hexadecimal(std::span(identifier).first(identifierBytes));
}

}  // namespace

SystemDeviceInformation::SystemDeviceInformation(std::string deviceFile, std::string machineRoot)
    : _deviceFile(std::move(deviceFile)), _machineRoot(std::move(machineRoot)) {}

std::optional<std::string> SystemDeviceInformation::answer(std::string_view key) {
  const MutexLock lock(_mutex);
  updateDeviceAnswers();
  if (const std::string* answer = stringAt(_deviceAnswers, key))
    return answer->empty() ? std::nullopt : std::optional(*answer);
  const auto known = _machineAnswers.find(key);
  if (known != _machineAnswers.end()) return known->second;
  return _machineAnswers.emplace(key, Machine(_machineRoot).answer(key)).first->second;
}

Result<DeviceAnswers> readDeviceAnswers(const std::string& path) {
  Result<Dictionary> answers = readDictionaryFile(path);
  if (!answers) return answers.failure();
  DeviceAnswers read{std::move(answers).value(), {}};
  for (const auto& [key, value] : read.answers)
    if (!value.string()) read.passedOver.push_back(key);
  return read;
}

void SystemDeviceInformation::updateDeviceAnswers() {
  const FileStamp stamp = FileStamp::of(_deviceFile);
  if (stamp == _deviceFileStamp) return;

  _deviceFileStamp = stamp;
  _deviceAnswers = {};
  if (stamp.error != 0) return;
  Result<DeviceAnswers> read = readDeviceAnswers(_deviceFile);
  if (!read) return logError("deviceInformation: {}; going on without it", read.failure().message);
  _deviceAnswers = std::move(read.value().answers);
  for (const std::string& key : read.value().passedOver)
    logError("deviceInformation: {}: \"{}\" is no text and is passed over", _deviceFile, key);
}

}  // namespace corvid
