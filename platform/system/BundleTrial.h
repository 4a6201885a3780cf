// Finds out what a bundle does before the daemon loads it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/data/LocalFileSystem.h"

namespace corvid {

// Neither where there is no bundle.
struct BundleTrial {
  std::optional<FileStamp> passed;   // the file that did well
  std::optional<std::string> fault;  // what it did
};

// Loads the bundle in a child process and makes one object of the class, where it has the class:
// what crashes, throws, ends or hangs there would have taken the daemon with it. `enterSandbox` is
// called in the child first and says whether it could. Call it on the only thread of the process;
// it waits for the child as long as its patience lasts.
BundleTrial tryBundle(const std::string& path, std::string_view className,
                      const std::function<bool()>& enterSandbox,
                      std::chrono::milliseconds patience = std::chrono::seconds(5));

}  // namespace corvid
