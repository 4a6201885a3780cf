// The daemon's numbers for a monitoring system.
#pragma once

#include <cstddef>
#include <string>

#include "status/Ledger.h"

namespace corvid {

// OpenMetrics text. Every reason and kind of failure stands as a label from the start, with 0.
std::string metricsText(const Ledger::Totals& totals, std::size_t sessions);

}  // namespace corvid
