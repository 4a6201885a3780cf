// The system's current locale and time zone. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/TimeValue.h"

namespace corvid {

class LocaleInformation {
 public:
  virtual ~LocaleInformation() = default;
  // The territory of the locale, such as "DE"; nothing where the locale names none.
  virtual std::optional<std::string> countryCode() = 0;
  // Offset of local time from GMT at that moment, in seconds, east positive.
  virtual std::int32_t secondsFromGMT(const TimeValue& at) = 0;
};

}  // namespace corvid
