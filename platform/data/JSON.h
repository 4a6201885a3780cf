// JSON text, written straight from values and read into them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/Result.h"
#include "base/Value.h"

namespace corvid {

// Compact text. Nothing when a string is not UTF-8 or a number is not finite. Data and dates,
// which JSON lacks, refuse too: the caller replaces them first.
std::optional<std::string> writeJSON(const Dictionary& object);
// Compact JSON text, as writeJSON makes it, indented for people.
std::string indentedJSON(std::string_view compact);

// Whole numbers that fit 64 signed bits become integers, others reals; null becomes a null value.
// The failure says what is wrong and at which byte.
Result<Value> parseJSON(std::string_view text);

}  // namespace corvid
