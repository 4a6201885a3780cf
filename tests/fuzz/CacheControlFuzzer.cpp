// The reader of "Cache-Control" against a plainer one that keeps every component.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/Reading.h"
#include "base/Text.h"
#include "config/StorebagFetch.h"

namespace {

std::int32_t plainly(std::string header) {
  std::replace(header.begin(), header.end(), '=', ' ');
  const auto components = corvid::split(header, ' ');
  const auto directive = std::find(components.begin(), components.end(), "max-age");
  if (components.end() - directive < 2) return corvid::defaultMaxAge;
  const std::int64_t number = corvid::integerFromText(*(directive + 1));
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(number, INT32_MIN, INT32_MAX));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string header(reinterpret_cast<const char*>(data), size);
  if (corvid::maxAgeFromCacheControl(header) != plainly(header)) std::abort();
  return 0;
}
