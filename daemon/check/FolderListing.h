// What lies beside the property lists of a folder.
#pragma once

#include <string>
#include <vector>

namespace corvid {

// Paths of what is no property list (*.plist) in a folder, in name order; hidden files are left
// out. Empty where the folder cannot be read.
std::vector<std::string> othersIn(const std::string& folder);

// The beginning and the first number, from 1, that make the path of nothing.
std::string unusedName(const std::string& beginning);

}  // namespace corvid
