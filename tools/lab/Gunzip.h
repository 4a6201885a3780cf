// Reads gzip streams.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvid::lab {

// The content of one whole gzip stream; nothing when it is damaged, cut off, followed by
// something else or over `limit` bytes.
std::optional<std::string> gunzip(std::string_view stream,
                                  std::size_t limit = std::size_t{1} << 30);

}  // namespace corvid::lab
