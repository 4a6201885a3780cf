// JSON text, written straight from values and read into them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/Result.h"
#include "base/Value.h"

namespace corvid {

// Compact text. Nothing when a string is not UTF-8 or a number is not finite. Data and dates,
// which JSON lacks, refuse too: the caller replaces them first.
// `expected` is how long it will be, where that is known.
std::optional<std::string> writeJSON(const Dictionary& object, std::size_t expected = 0);
// At least as much as writeJSON's text of a dictionary of these entries, and not much more. Any
// data or date counts as a number.
std::size_t mostJSONBytes(const Dictionary& object);
// Compact JSON text, as writeJSON makes it, indented for people.
std::string indentedJSON(std::string_view compact);

// Whole numbers that fit 64 signed bits become integers, others reals; null becomes a null value.
// The failure says what is wrong and at which byte.
Result<Value> parseJSON(std::string_view text);

}  // namespace corvid
