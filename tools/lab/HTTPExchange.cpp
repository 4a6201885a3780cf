#include "tools/lab/HTTPExchange.h"

#include <algorithm>

#include "base/Text.h"

namespace corvid::lab {

std::optional<std::string> Request::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (equalsIgnoringCase(key, name)) return value;
  return std::nullopt;
}

std::size_t Request::headerCount(std::string_view name) const {
  return static_cast<std::size_t>(std::ranges::count_if(
      headers, [&](const auto& header) { return equalsIgnoringCase(header.first, name); }));
}

Answer Answer::redirect(std::string location, int status) {
  return {.status = status, .headers = {{"Location", std::move(location)}}};
}

}  // namespace corvid::lab
