#include "gateway/http/RequestHead.h"

#include <algorithm>

namespace corvid::fleet {

const std::string* RequestHead::cvdValue(std::string_view name) const {
  const auto found = std::ranges::find(
      cvd, name, [](const auto& header) -> std::string_view { return header.first; });
  return found == cvd.end() ? nullptr : &found->second;
}

std::string_view RequestHead::query() const {
  const std::size_t mark = target.find('?');
  return mark == target.npos ? std::string_view() : std::string_view(target).substr(mark + 1);
}

}  // namespace corvid::fleet
