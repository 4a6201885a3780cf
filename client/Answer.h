// What the daemon answers, or tells of itself, as the host gets it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "client/include/corvid/corvid.h"

// A session's states. The C type is this one.
struct corvid_states {
  struct Backend {
    std::string name;
    std::string state;
    std::string reason;
  };
  std::optional<std::string> reason{};  // why the session has no backends
  std::vector<Backend> backends{};
  // The names of those that report; nothing where there are no backends, or no answer.
  std::optional<corvid::Array> reporting{};
};

// The answer to one call. Each has what belongs to its operation.
struct corvid_answer {
  struct Failure {
    std::string domain;
    std::int64_t code = 0;
    std::string description;
  };
  bool isAnswered = true;  // or the daemon dropped the reply
  std::optional<std::string> text{};
  std::optional<corvid::Array> reporting{};  // the states as they are answered
  std::optional<corvid_states> states{};     // and why they are that, where the daemon tells it
  bool success = false;
  std::optional<Failure> failure{};
  corvid_disposition_t disposition = CORVID_DISPOSITION_UNKNOWN;
  std::optional<std::string> reason{};  // why nobody took the message
};

namespace corvid::library {

using States = corvid_states;
using Answer = corvid_answer;

// A message for the host's aggregation block.
struct Delivery {
  std::optional<Dictionary> message{};
  double timestamp = 0;
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::optional<Dictionary> payload{};
};

}  // namespace corvid::library
