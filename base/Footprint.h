// How much memory a value takes, for bounds on what is held.
#pragma once

#include <cstddef>

#include "base/Value.h"

namespace corvid {

// Bytes, estimated from above without the allocator's own: entries, long strings, data, and all
// that is within. What several values share counts for each.
std::size_t footprint(const Dictionary& dictionary);

}  // namespace corvid
