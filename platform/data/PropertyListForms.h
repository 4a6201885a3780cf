// The two forms of a property list, for PropertyList.cpp only.
#pragma once

#include <string_view>

#include "platform/data/PropertyList.h"

namespace corvid {

// Seconds from 1970 to 2001, where the dates of the binary form begin.
inline constexpr double secondsFrom1970To2001 = 978307200;

inline constexpr std::string_view binaryPropertyListMagic = "bplist";

Result<Value> readBinaryPropertyList(std::string_view bytes, const PropertyListLimits& limits);
Result<Value> readXMLPropertyList(std::string_view text, const PropertyListLimits& limits);

}  // namespace corvid
