#include "gateway/uploads/UploadQuery.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/Text.h"
#include "base/URL.h"
#include "gateway/Limits.h"

namespace corvid::fleet {

std::optional<UploadQuery> UploadQuery::parse(std::string_view query) {
  if (query.size() > limits::queryBytes) return std::nullopt;
  UploadQuery read;
  const std::array<std::pair<std::string_view, std::string*>, 4> names{
      {{"uuid", &read.uuid},
       {"sequence", &read.sequence},
       {"filename", &read.filename},
       {"description", &read.description}}};
  for (const std::string_view pair : split(query, '&')) {
    const std::size_t equals = std::min(pair.find('='), pair.size());
    const auto known = std::ranges::find(names, pair.substr(0, equals),
                                         &std::pair<std::string_view, std::string*>::first);
    if (known == names.end()) continue;
    if (!known->second->empty()) return std::nullopt;
    const std::string_view value = pair.substr(std::min(equals + 1, pair.size()));
    *known->second = replacingInvalidUTF8(percentDecoded(value));
  }
  if (read.uuid.empty() || read.sequence.empty() || read.filename.empty()) return std::nullopt;
  return read;
}

}  // namespace corvid::fleet
