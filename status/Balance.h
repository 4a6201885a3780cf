// What has become of events, in numbers that add up.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

#include "base/Value.h"
#include "platform/HTTPClient.h"
#include "protocol/Reason.h"

namespace corvid {

enum class Outcome : std::uint8_t { delivered, refused, failed, dropped, held, underWay };

std::string_view wordOf(Outcome outcome);
std::string_view wordOf(HTTPFailure kind);

// Events, each counted once for each backend that it was offered to.
struct Balance {
  std::uint64_t accepted = 0;
  std::uint64_t delivered = 0;           // answered with 2xx, or taken by an adaptor
  std::map<int, std::uint64_t> refused;  // by status
  std::array<std::uint64_t, httpFailureCount> failed{};  // by HTTPFailure
  std::array<std::uint64_t, reasonCount> dropped{};      // by Reason
  std::uint64_t held = 0;
  std::uint64_t underWay = 0;

  std::uint64_t refusedInAll() const;
  std::uint64_t failedInAll() const;
  std::uint64_t droppedInAll() const;
  // Whether nothing is missing and nothing counts twice.
  bool adds() const;

  // "accepted", "delivered", "refused" and "failed" and "dropped" by word, "held", "underWay";
  // what never happened has no entry.
  Dictionary toDictionary() const;
};

}  // namespace corvid
