// Whole files, read with a limit and replaced in one step.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/Result.h"

namespace corvid {

// The whole content of a regular file of at most `limit` bytes, whatever length it claims. Anything
// else is a failure, whose code is the system error number. Never blocks on what is no regular
// file.
Result<std::string> readRegularFile(const std::string& path, std::size_t limit);

// Puts a file with this content, readable by its owner only, in the place of `path`: whatever
// happens, either the old file or the whole new one stands there. On success the change outlasts a
// power failure. Where the superuser writes, the file goes to the folder's owner. Callers for one
// path take turns: the new file grows under the name `path` + ".new".
std::optional<Failure> replaceRegularFile(const std::string& path, std::string_view content);

// Writes all of it; false, with errno set, when not all could be written.
bool writeFully(int descriptor, std::string_view content);

}  // namespace corvid
