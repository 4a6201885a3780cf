// What the bare program (bare.cpp) takes for the same events, in the same run.
#pragma once

#include <cstdint>
#include <string>

#include "base/Value.h"

namespace corvid::bench {

struct BareRun {
  int events = 0;
  int eventsPerPost = 1;
  std::size_t textBytes = 0;  // as makePayload's
  std::string url;
  std::string caFile;
  // One of the daemon's, from which the fields are taken that all records share.
  const Dictionary* record = nullptr;
};

// CPU microseconds an event. std::runtime_error where a post fails.
double measureBare(const BareRun& run, const std::string& folder);

}  // namespace corvid::bench
