// What one step led to, as the model expects it and as it is seen.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"

namespace corvid::simulation {

// A request for a storebag.
struct Fetch {
  std::string url{};
  std::optional<std::string> ifModifiedSince{};
  bool operator==(const Fetch&) const = default;
};

// Events on their way to a collector.
struct Post {
  std::string url{};
  std::map<std::string, std::string> headers{};  // but those of the body's length and coding
  Dictionary body{};
  std::string backend{};  // whose it is, where that is known: those of one come in order
};

// A message for a client's aggregation block.
struct Delivery {
  int client = 0;
  std::optional<Dictionary> message{};
  double timestamp = 0;
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::optional<Dictionary> payload{};
};

// What the calls of this step, and flushes of earlier ones, were answered with: a text a client can
// have been told, in a fixed form. Messages answer with the posts they tell of.
struct Answer {
  int client = 0;
  std::string call{};
  std::vector<std::string> anyOf{};  // one of these; seen ones have one
};

// A session's backends, or why it has none, by client.
using States = std::map<int, std::string>;
// The ledger's sums by word; what is 0 is not there.
using Sums = std::map<std::string, std::int64_t>;

struct Step {
  std::vector<Fetch> fetches{};
  std::vector<Post> posts{};
  std::vector<Delivery> deliveries{};
  std::vector<Answer> answers{};
  States states{};
  Sums sums{};
};

}  // namespace corvid::simulation
