// Reads property lists of settings, and the machine's own small files.
#pragma once

#include <string>

#include "base/Result.h"
#include "base/Value.h"

namespace corvid {

// The whole content of a regular file, at most as long as a property list may be; failures as in
// FileSystem::readFile.
Result<std::string> readSettingsFile(const std::string& path);

// The dictionary in a property list. The failure names the file and what is wrong with it.
Result<Dictionary> readDictionaryFile(const std::string& path);

}  // namespace corvid
