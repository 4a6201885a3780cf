// The two forms of a property list, for PropertyList.cpp only.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/data/PropertyList.h"

namespace corvid {

// Seconds from 1970 to 2001, where the dates of the binary form begin.
inline constexpr double secondsFrom1970To2001 = 978307200;

inline constexpr std::string_view binaryPropertyListMagic = "bplist";

// Why a list cannot be used; what() is for people.
class UnusableList final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  static std::string tooMany(std::string_view what, std::size_t limit) {
    return fmt::format("The property list has more than {} {}", limit, what);
  }
};

// Both throw UnusableList.
Value readBinaryPropertyList(std::string_view bytes, const PropertyListLimits& limits);
Value readXMLPropertyList(std::string_view text, const PropertyListLimits& limits);

}  // namespace corvid
