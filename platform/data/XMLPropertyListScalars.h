// How numbers and dates are written in the XML form of a property list.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid {

// Decimal, or hexadecimal after "0x", with an optional sign. What fits only without a sign wraps.
std::optional<std::int64_t> integerFromXML(std::string_view text);
// Decimal; also "inf", "infinity" and "nan".
std::optional<double> realFromXML(std::string_view text);
// Of the form "2026-11-20T20:13:05Z".
std::optional<Date> dateFromXML(std::string_view text);
// Cut to the whole second. Nothing outside the years 0 to 9999.
std::optional<std::string> xmlFromDate(Date date);

}  // namespace corvid
