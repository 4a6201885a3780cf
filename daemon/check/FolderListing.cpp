#include "daemon/check/FolderListing.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace corvid {

namespace fs = std::filesystem;

std::vector<std::string> othersIn(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code error;
  fs::directory_iterator entry(folder, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (!name.starts_with('.') && !name.ends_with(".plist")) paths.push_back(entry->path());
  }
  std::ranges::sort(paths);
  return paths;
}

std::string unusedName(const std::string& beginning) {
  std::error_code error;
  for (int number = 1;; ++number)
    if (std::string path = beginning + std::to_string(number); !fs::exists(path, error))
      return path;
}

}  // namespace corvid
