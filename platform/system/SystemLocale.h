// Locale and time zone of the machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Mutex.h"
#include "platform/Device.h"

namespace corvid {

// The territory is that of the first of LC_ALL, LC_MESSAGES and LANG that names one, in the
// environment and then in `localeFile` ("C", "POSIX", "en" and "C.UTF-8" name none). The time zone
// is the environment's TZ where it is set, else the system's at the moment of the question.
//
// Threads: any; nobody may change the environment meanwhile.
class SystemLocale final : public LocaleInformation {
 public:
  explicit SystemLocale(std::string localeFile) : _localeFile(std::move(localeFile)) {}

  DeviceAnswer countryAnswer() override;
  Sourced<std::int32_t> timeZoneOffset(const TimeValue& at) override EXCLUDES(_mutex);

 private:
  struct Offset {
    std::int64_t second = 0;
    std::optional<std::string> zone;  // TZ
    std::int32_t secondsFromGMT = 0;
  };

  const std::string _localeFile;
  Mutex _mutex;
  std::optional<Offset> _latest GUARDED_BY(_mutex);
};

}  // namespace corvid
