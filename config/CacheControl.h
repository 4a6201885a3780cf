// How long a storebag may be kept, as its server says it.
#pragma once

#include <cstdint>
#include <string_view>

namespace corvid {

// What holds where the server says nothing: one day, in seconds.
inline constexpr std::int32_t defaultMaxAge = 86400;

// The number after the first "max-age" of a "Cache-Control" header, in seconds; the header is cut
// at every "=" and every blank, and nothing else separates. 0 where no number stands there,
// `defaultMaxAge` where nothing stands there at all or the header is empty. Saturates at the ends
// of its type.
std::int32_t maxAgeFromCacheControl(std::string_view header);

}  // namespace corvid
