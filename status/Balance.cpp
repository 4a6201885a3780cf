#include "status/Balance.h"

#include <fmt/format.h>

#include <numeric>
#include <string>

namespace corvid {

namespace {

constexpr std::array<std::string_view, 6> outcomeWords{"delivered", "refused", "failed",
                                                       "dropped",   "held",    "underWay"};
constexpr std::array<std::string_view, httpFailureCount> failureWords{
    "resolve",  "connect",   "tls",   "timeout",  "closed",
    "tooLarge", "queueFull", "other", "withdrawn"};

template <class Counts>
std::uint64_t sumOf(const Counts& counts) {
  return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

// Those that are not 0, under what `word` calls their place.
template <class Counts, class Word>
Dictionary byWord(const Counts& counts, Word word) {
  Dictionary result;
  for (std::size_t at = 0; at < counts.size(); ++at)
    if (counts[at] > 0) result.set(std::string(word(at)), static_cast<std::int64_t>(counts[at]));
  return result;
}

}  // namespace

std::string_view wordOf(Outcome outcome) { return outcomeWords[static_cast<std::size_t>(outcome)]; }
std::string_view wordOf(HTTPFailure kind) { return failureWords[static_cast<std::size_t>(kind)]; }

std::uint64_t Balance::refusedInAll() const {
  std::uint64_t sum = 0;
  for (const auto& [status, count] : refused) sum += count;
  return sum;
}

std::uint64_t Balance::failedInAll() const { return sumOf(failed); }
std::uint64_t Balance::droppedInAll() const { return sumOf(dropped); }

bool Balance::adds() const {
  return accepted == delivered + refusedInAll() + failedInAll() + droppedInAll() + held + underWay;
}

Dictionary Balance::toDictionary() const {
  Dictionary byStatus;
  for (const auto& [status, count] : refused)
    byStatus.set(fmt::format("{}", status), static_cast<std::int64_t>(count));
  return {
      {"accepted", static_cast<std::int64_t>(accepted)},
      {"delivered", static_cast<std::int64_t>(delivered)},
      {"refused", std::move(byStatus)},
      {"failed",
       byWord(failed, [](std::size_t at) { return wordOf(static_cast<HTTPFailure>(at)); })},
      {"dropped", byWord(dropped, [](std::size_t at) { return reasonTexts[at].word; })},
      {"held", static_cast<std::int64_t>(held)},
      {"underWay", static_cast<std::int64_t>(underWay)},
  };
}

}  // namespace corvid
