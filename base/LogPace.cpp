#include "base/LogPace.h"

#include <fmt/format.h>

#include <algorithm>

namespace corvid {

std::optional<std::string> LogPace::next(Kind kind, Time now) {
  const bool isKnown = _pace.knows(kind) || _leftOut.contains(kind);
  if (!isKnown && std::max(_pace.size(), _leftOut.size()) >= mostKinds) kind = {};
  const auto counted = _leftOut.find(kind);
  if (_pace.next(kind, now) > now) {
    if (counted != _leftOut.end()) {
      ++counted->second;
      return std::nullopt;
    }
    _leftOut.emplace(kind, 0);
    return " (further lines like it are counted and told of once a minute)";
  }
  if (counted == _leftOut.end()) return "";
  if (const std::size_t count = std::exchange(counted->second, 0))
    return fmt::format(" ({} more like it in the meantime)", count);
  _leftOut.erase(counted);
  return "";
}

}  // namespace corvid
