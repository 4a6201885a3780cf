// One-shot compression of bodies.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvid {

// A gzip stream (`gzip` true) or a zlib stream of `data`; nothing after one error line.
std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view data);
std::optional<std::string> gzipDeflate(std::string_view data);

}  // namespace corvid
