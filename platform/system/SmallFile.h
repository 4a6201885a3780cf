// Reads small configuration files and what the kernel shows as files.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Result.h"

namespace corvid {

inline constexpr std::size_t smallFileLimit = std::size_t{1} << 20;

// The whole content of a regular file of at most `limit` bytes. Anything else is a failure, whose
// code is the system error number. Never blocks on what is no regular file.
Result<std::string> readSmallFile(const std::string& path, std::size_t limit = smallFileLimit);

// The value of `name` in a text of shell-like assignments such as os-release or locale.conf: the
// last one counts, quotes and backslashes are taken away. Nothing where it is missing or empty.
std::optional<std::string> assignedValue(std::string_view text, std::string_view name);

}  // namespace corvid
