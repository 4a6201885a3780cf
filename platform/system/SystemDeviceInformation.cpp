#include "platform/system/SystemDeviceInformation.h"

#include <sys/stat.h>

#include <cerrno>

#include "base/Log.h"
#include "base/Reading.h"
#include "platform/system/MachineInformation.h"
#include "platform/system/SettingsFile.h"

namespace corvid {

namespace {

std::int64_t nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
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
  return _machineAnswers.emplace(key, machineAnswer(key, _machineRoot)).first->second;
}

void SystemDeviceInformation::updateDeviceAnswers() {
  struct stat status {};
  FileVersion version;
  if (stat(_deviceFile.c_str(), &status) == 0)
    version = {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
               nanoseconds(status.st_ctim)};
  if (version == _deviceFileVersion) return;

  _deviceFileVersion = version;
  _deviceAnswers = {};
  if (version == FileVersion{}) return;
  Result<Dictionary> answers = readDictionaryFile(_deviceFile);
  if (!answers)
    return logError("deviceInformation: {}; going on without it", answers.failure().message);
  _deviceAnswers = std::move(answers).value();
  for (const auto& [key, value] : _deviceAnswers)
    if (!value.string())
      logError("deviceInformation: {}: \"{}\" is no text and is passed over", _deviceFile, key);
}

}  // namespace corvid
