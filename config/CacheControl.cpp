#include "config/CacheControl.h"

#include <algorithm>
#include <limits>

#include "base/Reading.h"

namespace corvid {

std::int32_t maxAgeFromCacheControl(std::string_view header) {
  using Limits = std::numeric_limits<std::int32_t>;
  constexpr std::string_view separators = "= ";
  bool found = false;
  for (;;) {
    const std::size_t end = header.find_first_of(separators);
    const std::string_view component = header.substr(0, end);
    if (found)
      return static_cast<std::int32_t>(
          std::clamp<std::int64_t>(integerFromText(component), Limits::min(), Limits::max()));
    if (end == std::string_view::npos) return defaultMaxAge;
    found = component == "max-age";
    header.remove_prefix(end + 1);
  }
}

}  // namespace corvid
