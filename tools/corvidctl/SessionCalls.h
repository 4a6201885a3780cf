// The calls that `corvidctl session` makes, from one JSON object each to another.
#pragma once

#include <cstdint>
#include <optional>

#include "base/Value.h"
#include "tools/Arguments.h"
#include "tools/corvidctl/Client.h"

namespace corvid::ctl {

// Makes the call that `line` describes, property-list values in place of their JSON forms, and
// gives the line that tells its outcome. tools::InputError where there is no such call or an
// argument is of a wrong type; CallError where the call failed.
Dictionary performCall(Client& client, const Dictionary& line);

// The line that tells of a call of the aggregation block.
Dictionary messageEvent(const std::optional<Dictionary>& message, double timestamp,
                        std::uint16_t category, std::uint16_t type,
                        const std::optional<Dictionary>& payload);

}  // namespace corvid::ctl
