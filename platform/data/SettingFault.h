// What the readers of settings find in a file that they can use otherwise.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"

namespace corvid {

// One setting of a property list that does nothing, or not what was meant.
struct SettingFault {
  std::string key;
  // As people are told behind the key: "is of the wrong type".
  std::string what;
  // Text of the file, and what to put in its place so that the fault is gone; empty where that is
  // not known.
  std::string text{};
  std::string replacement{};
};

// A fault for each key that is none of the known ones; one that is misspelt is told the right one.
std::vector<SettingFault> unknownKeys(const Dictionary& settings,
                                      std::span<const std::string_view> known);

}  // namespace corvid
