// Locale and time zone of the machine.
#pragma once

#include <string>

#include "platform/LocaleInformation.h"

namespace corvid {

// The territory is that of the first of LC_ALL, LC_MESSAGES and LANG that names one, in the
// environment and then in `localeFile` ("C", "POSIX", "en" and "C.UTF-8" name none). The time zone
// is the environment's TZ where it is set, else the system's at the moment of the question.
//
// Threads: any; nobody may change the environment meanwhile.
class SystemLocale final : public LocaleInformation {
 public:
  explicit SystemLocale(std::string localeFile) : _localeFile(std::move(localeFile)) {}

  std::optional<std::string> countryCode() override;
  std::int32_t secondsFromGMT(const TimeValue& at) override;

 private:
  const std::string _localeFile;
};

}  // namespace corvid
