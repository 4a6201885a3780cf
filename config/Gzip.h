// One-shot compression of bodies.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvid {

class Deflater;

// A gzip stream (`gzip` true) or a zlib stream of `data`; nothing after one error line. Any thread.
std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view data);
// The same on a stream of the caller's, which has ended when the call returns.
std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view data,
                                                      Deflater& deflater);
std::optional<std::string> gzipDeflate(std::string_view data);

}  // namespace corvid
