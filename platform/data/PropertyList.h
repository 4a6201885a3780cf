// Property lists in XML and binary form, from bytes that nobody has checked.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace corvid {

// What a property list may ask of its reader. A list past a limit is refused before it is built.
struct PropertyListLimits {
  std::size_t bytes = std::size_t{4} << 20;
  std::size_t depth = 32;
  // Values in all, counted as the reader would build them: an object that a binary list refers to
  // twice counts twice.
  std::size_t values = 100'000;
};

// Reads either form. The failure says what is wrong and, where it is known, where.
Result<Value> parsePropertyList(std::string_view bytes, const PropertyListLimits& limits = {});

std::string writeXMLPropertyList(const Value& value);
std::string writeBinaryPropertyList(const Value& value);

}  // namespace corvid
