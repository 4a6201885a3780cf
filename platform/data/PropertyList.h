// Property lists in XML and binary form, from bytes that nobody has checked.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/Result.h"
#include "base/Value.h"

namespace corvid {

// What a property list may ask of its reader. A list past a limit is refused before it is built.
struct PropertyListLimits {
  // Of the list itself; also of the text and data it has when what it shares is written out.
  std::size_t bytes = std::size_t{4} << 20;
  std::size_t depth = 32;  // levels of containers
  // Values in all, keys not counted: a value that a binary list refers to twice counts twice.
  std::size_t values = 100'000;
};

// Reads either form. The failure says what is wrong and, where it is known, where.
//
// What Value has no type for (null, sets, UIDs) is left out of its container. Of equal keys the
// last wins. Integers are 64 signed bits: larger unsigned ones wrap. A string that is no Unicode
// text, a key that is no string, and declarations inside an XML document make the list fail.
Result<Value> parsePropertyList(std::string_view bytes, const PropertyListLimits& limits = {});

// The same of a list that is a dictionary.
Result<Dictionary> parseDictionary(std::string_view bytes, const PropertyListLimits& limits = {});
// The same of a file. The failure names it; its code is the system's where it cannot be read, else
// 0.
Result<Dictionary> readDictionaryFile(const std::string& path);

// Both leave null values out, and replace what is not UTF-8 by U+FFFD. XML cannot carry control
// characters (they become U+FFFD), fractions of a second (cut) or years past 9999 (left out); the
// binary form carries every value as it is.
std::string writeXMLPropertyList(const Value& value);
std::string writeBinaryPropertyList(const Value& value);

// The array as an archive that another machine can take apart: a binary property list. Nothing
// where it holds, at any depth, what a property list has no form for: an archive that lacks some of
// its items would not tell.
std::optional<std::string> archivedData(const Array& array);

}  // namespace corvid
