// What an entry of a storebag says of a client on a device, and the filters of an entry:
// docs/storebag.md.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"
#include "tests/simulation/Facts.h"

namespace corvid::simulation {

// The words of `corvidctl sessions`.
enum class State { waiting, disabled, sending, held };
const char* wordOf(State state);

struct Filter {
  std::string key{};
  std::int32_t method = -1;
  std::int32_t status = -1;
  enum class Action { keep, remove, digest } action = Action::keep;
};

// All that an entry decides. A decision leaves in place what it does not come to.
struct Policy {
  State state = State::waiting;
  std::string reason = "waitingForUserInfo";
  bool batches = false;
  std::optional<std::string> postURL{};
  std::optional<std::string> realtimePostURL{};
  std::int32_t hierarchy = 0;
  std::int32_t dnuType = 0;
  std::vector<Filter> filters{};
  std::optional<double> threshold{};
  std::optional<double> overrideSampling{};
  std::int32_t eventThreshold = 49;
  std::int32_t extrasOnInternal = 0;
  bool hasCustomID = false;  // once an entry has asked for one
  std::string customClient{};
  std::string customService{};

  bool hasAddress() const { return postURL || realtimePostURL; }
};

// What stands behind a decision, and does not change.
struct PolicyMaker {
  Dictionary profile{};
  bool requiresUserInfo = false;
  bool consents = false;  // when the backend was made
  double draw = 0;
};

void decide(Policy& policy, const PolicyMaker& maker, const std::optional<Dictionary>& userInfo,
            const Facts& facts);

// Removes and digests what the filters say.
void applyFilters(const std::vector<Filter>& filters, Dictionary& record);

}  // namespace corvid::simulation
