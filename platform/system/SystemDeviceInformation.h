// What the machine knows about itself.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "base/Result.h"
#include "base/Value.h"
#include "platform/Device.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/SettingFault.h"

namespace corvid {

// What the property list says for the machine. What is no text is a fault, and no answer; unknown
// keys are faults too.
struct DeviceAnswers {
  Dictionary answers;
  std::vector<SettingFault> faults;
};
// The failure names the file.
Result<DeviceAnswers> readDeviceAnswers(const std::string& path);

// Answers from the property list `deviceFile` first: a text answers for its key, an empty one says
// that there is no answer, anything else is as if it were not there. The file is read again when
// it has changed; a damaged one is logged once and leaves what was in force.
//
// Where the file has nothing to say, the machine answers, once per key and process:
//   ProductVersion   VERSION_ID of os-release
//   BuildVersion     BUILD_ID of os-release, else the kernel's release
//   DeviceName       DMI product family, else the device tree's "model", else HARDWARE_MODEL of
//                    machine-info, else the chassis, else the architecture
//   ProductType      DMI product name, else the device tree's first "compatible", else
//                    HARDWARE_MODEL of machine-info, else the architecture
//   HWModelStr       DMI board name, else the device tree's "model"
//   SerialNumber     DMI product serial (for root only), else the device tree's "serial-number"
//   UniqueDeviceID   40 hexadecimal digits made from the machine id, which they do not reveal
// The chassis is CHASSIS of machine-info, else that of DMI or of the device tree, in hostnamed's
// words ("laptop", "handset", ...); behind it and the architecture stands NAME of os-release, or
// "Linux": "laptop Debian GNU/Linux". So the first two keys have an answer on each machine.
// Everything else, ReleaseType included, comes from the property list only. What board makers put
// where they had nothing to say ("Default string") is no answer.
//
// Threads: any.
class SystemDeviceInformation final : public DeviceInformationService {
 public:
  // `machineRoot` stands before the machine's own files (/etc, /usr, /sys), save its identifier:
  // whatever the root, it is this machine.
  explicit SystemDeviceInformation(std::string deviceFile, std::string machineRoot = {},
                                   std::string machineIDFile = "/etc/machine-id");

  DeviceAnswer answer(std::string_view key) override EXCLUDES(_mutex);

  // Reads the property list now. Where it is damaged, what was in force stays, and nothing is
  // logged; the failure names the file.
  std::optional<Failure> reload() EXCLUDES(_mutex);

 private:
  void updateDeviceAnswers() REQUIRES(_mutex);
  std::optional<Failure> takeDeviceAnswers(const FileStamp& stamp) REQUIRES(_mutex);

  const std::string _deviceFile;
  const std::string _machineRoot;
  const std::string _machineIDFile;

  Mutex _mutex;
  std::optional<FileStamp> _deviceFileStamp GUARDED_BY(_mutex);  // nothing before the first look
  Dictionary _deviceAnswers GUARDED_BY(_mutex);
  std::map<std::string, DeviceAnswer, std::less<>> _machineAnswers GUARDED_BY(_mutex);
};

}  // namespace corvid
