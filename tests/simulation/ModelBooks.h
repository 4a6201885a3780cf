// The sums that the model keeps of events: docs/reasons.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/simulation/Step.h"

namespace corvid::simulation {

// How an exchange ends: with a status, or without an answer, as a word of docs/reasons.md tells,
// which is also the error's text.
struct Ending {
  int status = 0;
  std::string kind{};
};
inline constexpr int transportErrorCode = 7;

// A post and what its answer changes.
struct ExpectedPost {
  Post post{};
  std::size_t events = 0;
  std::function<void(const Ending&)> ends{};  // called after the sums have changed
};

struct Books {
  Sums sums{};
  std::vector<ExpectedPost> posts{};  // that begin in this step

  void add(const std::string& word, std::size_t count = 1) {
    if (count == 0) return;
    auto& sum = sums[word];
    sum += static_cast<std::int64_t>(count);
    if (sum == 0) sums.erase(word);
  }
  void take(const std::string& word, std::size_t count) {
    if (count == 0) return;
    auto& sum = sums[word];
    sum -= static_cast<std::int64_t>(count);
    if (sum == 0) sums.erase(word);
  }
  void drop(const std::string& reason, std::size_t count = 1) { add("dropped " + reason, count); }
  // Events that were offered and meet this at once.
  void accept(const std::string& word) {
    add("accepted");
    add(word);
  }
};

}  // namespace corvid::simulation
