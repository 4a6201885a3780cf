// What a test that measures time must know of the build.
#pragma once

#include "base/Sanitizer.h"

namespace corvid {

// Nothing is optimised, or a sanitizer is built in: figures that users see hold for neither.
#ifdef __OPTIMIZE__
inline constexpr bool isSlowBuild = hasSanitizer;
#else
inline constexpr bool isSlowBuild = true;
#endif

}  // namespace corvid
