#include "platform/LogShares.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace corvid {

void LogShares::begin(std::string path, std::size_t bytes) {
  *this = LogShares();
  _path = std::move(path);
  add(std::nullopt, bytes);
}

void LogShares::add(User user, std::size_t bytes) {
  _bytes += bytes;
  _bytesOf[user] += bytes;
  constexpr std::size_t mostOfARun = std::numeric_limits<std::uint32_t>::max();
  if (!_runs.empty() && _runs.back().user == user) {
    const std::size_t more = std::min(bytes, mostOfARun - _runs.back().bytes);
    _runs.back().bytes += static_cast<std::uint32_t>(more);
    bytes -= more;
  }
  for (; bytes > 0; bytes -= std::min(bytes, mostOfARun))
    _runs.push_back({user, static_cast<std::uint32_t>(std::min(bytes, mostOfARun))});
}

std::vector<ByteRange> LogShares::removeOlderHalfOfMost(
    const std::function<std::size_t(std::size_t from, std::size_t latest)>& endOfLine) {
  const auto most =
      std::ranges::max_element(_bytesOf, {}, [](const auto& of) { return of.second; });
  if (most == _bytesOf.end()) return {};
  const User user = most->first;
  const std::size_t half = most->second - most->second / 2;
  LogShares left;
  std::vector<ByteRange> removed;
  std::size_t begin = 0;
  std::size_t gone = 0;
  for (const Run& run : _runs) {
    const std::size_t end = begin + run.bytes;
    std::size_t kept = begin;
    if (run.user == user && gone < half) {
      kept = half - gone < run.bytes ? endOfLine(begin + (half - gone), end) : end;
      removed.push_back({begin, kept});
      gone += kept - begin;
    }
    left.add(run.user, end - kept);
    begin = end;
  }
  left._path = std::move(_path);
  *this = std::move(left);
  return removed;
}

}  // namespace corvid
