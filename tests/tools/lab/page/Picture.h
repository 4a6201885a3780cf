// Pictures of the page that are small enough to be kept with the source.
#pragma once

#include <string>
#include <string_view>

namespace corvid::lab {

// The same picture in at most 256 colours: the most frequent ones, and for every other the nearest
// of them. `png`: of 8 bits a channel, three or four channels, not interlaced, as a browser makes
// it; std::runtime_error where it is another.
std::string inFewColours(std::string_view png);

}  // namespace corvid::lab
