// The gateway's figures for a monitor.
#pragma once

#include <cstddef>
#include <string>

#include "gateway/Ledger.h"

namespace corvid::fleet {

struct Gauges {
  std::size_t memory = 0;  // of the budget, bytes
  std::size_t memoryLimit = 0;
  std::size_t waiting = 0;  // messages that the log has not acknowledged yet
  std::size_t clients = 0;  // that are remembered
  bool logIsReady = false;
};

// In the OpenMetrics text format, version 1.0.0.
inline constexpr const char* metricsType =
    "application/openmetrics-text; version=1.0.0; charset=utf-8";
std::string metricsText(const Ledger::Balance& balance, const Gauges& gauges);

}  // namespace corvid::fleet
