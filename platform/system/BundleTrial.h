// Finds out what a bundle does before the daemon loads it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace corvid {

// Loads the bundle in a child process and makes one object of the class, where it has the class:
// what crashes, throws, ends or hangs there would have taken the daemon with it. `enterSandbox` is
// called in the child first and says whether it could. Call it on the only thread of the process;
// it waits for the child as long as its patience lasts.
//
// Gives nothing where the bundle did well or there is none, else what it did.
std::optional<std::string> tryBundle(const std::string& path, std::string_view className,
                                     const std::function<bool()>& enterSandbox,
                                     std::chrono::milliseconds patience = std::chrono::seconds(5));

}  // namespace corvid
